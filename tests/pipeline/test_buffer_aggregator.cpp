// The ring's contents, wrapping, overflow and batches are fuzzed against a
// plain queue (tests/fuzz/fuzz_buffer_aggregator); here, what it logs.
#include "pipeline/buffer_aggregator.h"

#include "common/logging.h"
#include "test_support.h"

#include <gmock/gmock.h>

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

}  // namespace
}  // namespace tonwerk
