// Padding and trimming at the ends of a stream, seen through the identity
// model (vocals = input): whatever the padding, the stems must come back
// exactly as long as the input and aligned with the mixture row.
#include "pipeline/chunk_processor.h"

#include "pipeline/stream_padding.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <xtensor/xpad.hpp>
#include <xtensor/xrandom.hpp>
#include <xtensor/xview.hpp>

namespace tonwerk {
namespace {

ChunkProcessor makeChunkProcessor() { return ChunkProcessor(test::identityBackend(), 2, 4096, 1024, 0, 256, 6); }

// A slow sine per channel: a one-sample slip would show as an error of 0.02.
xt::xarray<float> stereo(std::size_t length) {
    xt::xarray<float> s = xt::xarray<float>::from_shape({2, length});
    for (std::size_t i = 0; i < length; ++i) {
        s(0, i) = 0.5F * std::sin(0.04F * static_cast<float>(i) + 0.3F);
        s(1, i) = 0.4F * std::cos(0.05F * static_cast<float>(i));
    }
    return s;
}

// A stream that fits one chunk is all edge: its frames also cover the
// mirrored and zero padding, whose kinks lose their Nyquist component in the
// forward transform (measured up to 1e-4 for the shortest streams).
constexpr double kShortStreamTolerance = 1e-3;

class ShortStream : public ::testing::TestWithParam<std::size_t> {};

TEST_P(ShortStream, ComesBackWholeAndAlignedAfterPaddingBothEnds) {
    const std::size_t length = GetParam();
    ChunkProcessor chunks = makeChunkProcessor();
    const xt::xarray<float> input = stereo(length);
    const xt::xarray<float> result = chunks.process(input, true);
    ASSERT_EQ(result.shape(), (std::vector<std::size_t>{7, 2, length}));
    EXPECT_EQ(xt::xarray<float>(xt::view(result, 6)), input) << "mixture row";
    for (std::size_t c = 0; c < 2; ++c) {
        for (std::size_t i = 0; i < length; ++i) {
            ASSERT_NEAR(result(0, c, i), input(c, i), kShortStreamTolerance) << "channel " << c << ", sample " << i;
        }
    }
    EXPECT_EQ(xt::amax(xt::abs(xt::view(result, xt::range(1, 6))))(), 0.0F);
}

// 1 and 2: mirroring reaches no or one sample, the rest is silence; 1024 and
// 4096: whole hops, no end padding to round up; the others round up to hops.
INSTANTIATE_TEST_SUITE_P(Lengths, ShortStream, ::testing::Values(1, 2, 1000, 1024, 1025, 4096, 5000, 9000));

TEST(ChunkProcessor, NothingToSeparateGivesNoResult) {
    EXPECT_EQ(makeChunkProcessor().process(stereo(257023), false).dimension(), 0u);
    EXPECT_EQ(makeChunkProcessor().process(xt::xarray<float>::from_shape({2, 0}), true).dimension(), 0u);
}

TEST(StreamPadding, MirrorsWithoutRepeatingTheEdgeThenAddsSilence) {
    const xt::xarray<float> data = xt::random::rand<float>({2, 7});
    for (std::size_t reflect = 0; reflect <= 6; ++reflect) {
        for (std::size_t zeros : {0, 3}) {
            xt::xarray<float> expected = xt::pad(data, {{0, 0}, {0, reflect}}, xt::pad_mode::reflect);
            expected = xt::pad(expected, {{0, 0}, {0, zeros}}, xt::pad_mode::constant, 0.0F);
            EXPECT_EQ(padEnd(data, reflect, zeros), expected) << reflect << " mirrored, " << zeros << " zeros";
        }
        EXPECT_EQ(padFront(data, reflect), xt::pad(data, {{0, 0}, {reflect, 0}}, xt::pad_mode::reflect)) << reflect;
    }
    EXPECT_THROW(padEnd(data, 7, 0), std::invalid_argument);
    EXPECT_THROW(padFront(data, 7), std::invalid_argument);
    // Nothing to mirror from a single sample, but silence can still follow it.
    const xt::xarray<float> single = xt::xtensor<float, 2>{{1.0F}, {2.0F}};
    EXPECT_EQ(padEnd(single, 0, 2), (xt::xarray<float>{{1.0F, 0.0F, 0.0F}, {2.0F, 0.0F, 0.0F}}));
}

}  // namespace
}  // namespace tonwerk
