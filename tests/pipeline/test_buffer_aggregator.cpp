#include "pipeline/buffer_aggregator.h"

#include "common/logging.h"
#include "test_support.h"

#include <gmock/gmock.h>

#include <xtensor/xview.hpp>

#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

using ::testing::EndsWith;

// {2, n}: channel 0 counts first, first + 1, ...; channel 1 is the same plus 100.
xt::xarray<float> ramp(float first, std::size_t n) {
    xt::xarray<float> chunk = xt::xarray<float>::from_shape({2, n});
    for (std::size_t i = 0; i < n; ++i) {
        chunk(0, i) = first + static_cast<float>(i);
        chunk(1, i) = first + static_cast<float>(i) + 100.0f;
    }
    return chunk;
}

TEST(BufferAggregator, WrapsAroundInOrderKeepsTheNewestSamplesAndRejectsOverflow) {
    BufferAggregator buffer(2, 8, 1);
    buffer.push(ramp(0, 6));
    EXPECT_EQ(buffer.get(4, 1), ramp(0, 4));  // keeps sample 3
    EXPECT_EQ(buffer.heldLength(), 3u);
    buffer.push(ramp(6, 5));  // ring positions 6, 7, 0, 1, 2
    EXPECT_EQ(buffer.heldLength(), 8u);
    EXPECT_EQ(buffer.get(0, 2), ramp(3, 8));
    EXPECT_EQ(buffer.heldLength(), 2u);
    EXPECT_EQ(buffer.flush(), ramp(9, 2));
    EXPECT_EQ(buffer.heldLength(), 0u);
    EXPECT_EQ(buffer.flush().shape(), (std::vector<std::size_t>{2, 0}));
    // After a flush the whole capacity is free again, and the data intact.
    buffer.push(ramp(20, 5));
    EXPECT_EQ(buffer.get(3, 0), ramp(20, 3));  // leaves 23 and 24

    // An overflowing push leaves everything unchanged; exactly the free space fits.
    EXPECT_EQ(test::runtimeErrorOf([&] { buffer.push(ramp(50, 7)); }),
              "Buffer overflow: cannot accept chunk of size 7");
    EXPECT_EQ(buffer.heldLength(), 2u);
    buffer.push(ramp(25, 6));
    EXPECT_EQ(buffer.heldLength(), 8u);
    EXPECT_EQ(buffer.flush(), ramp(23, 8));
}

TEST(BufferAggregator, UnderflowWarnsAndReturnsNothing) {
    auto logging = log::LogSetup::trySetUp();
    ASSERT_NE(logging, nullptr);
    BufferAggregator buffer(2, 8, 1);
    const std::string printed = test::stdoutOf([&] {
        EXPECT_EQ(buffer.get(0, 0).dimension(), 0u);
        buffer.push(ramp(0, 3));
        EXPECT_EQ(buffer.get(4, 0).dimension(), 0u);
    });
    // Only the two warnings print at the default threshold.
    const auto lines = test::linesWith(printed, "");
    ASSERT_EQ(lines.size(), 2u) << printed;
    EXPECT_NE(lines[0].find("[BufferAggregator::get@"), std::string::npos) << printed;
    EXPECT_THAT(lines[0], EndsWith("BufferAggregator::get - cannot return requested size: 0, current length: 0"));
    EXPECT_THAT(lines[1], EndsWith("BufferAggregator::get - cannot return requested size: 4, current length: 3"));
    EXPECT_EQ(buffer.get(0, 0), ramp(0, 3));
}

TEST(BufferAggregator, BatchRowsReceiveBroadcastOrPerRowChunks) {
    BufferAggregator buffer(2, 8, 3);
    EXPECT_EQ(buffer.flush().shape(), (std::vector<std::size_t>{3, 2, 0}));
    buffer.push(ramp(0, 3));
    xt::xarray<float> perRow = xt::xarray<float>::from_shape({3, 2, 2});
    for (std::size_t b = 0; b < 3; ++b) xt::view(perRow, b) = ramp(10.0f * static_cast<float>(b), 2);
    buffer.push(perRow);

    const xt::xarray<float> all = buffer.flush();
    ASSERT_EQ(all.shape(), (std::vector<std::size_t>{3, 2, 5}));
    for (std::size_t b = 0; b < 3; ++b) {
        EXPECT_EQ(xt::view(all, b, xt::all(), xt::range(0, 3)), ramp(0, 3)) << b;
        EXPECT_EQ(xt::view(all, b, xt::all(), xt::range(3, 5)), ramp(10.0f * static_cast<float>(b), 2)) << b;
    }
}

}  // namespace
}  // namespace tonwerk
