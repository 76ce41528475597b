// The padding at the ends of a stream. Streams shorter than a frame, which
// are all padding, go through the identity model in tests/api.
#include "pipeline/stream_padding.h"

#include <gtest/gtest.h>

#include <xtensor/xpad.hpp>
#include <xtensor/xrandom.hpp>

namespace tonwerk {
namespace {

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
