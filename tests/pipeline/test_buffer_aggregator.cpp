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

TEST(BufferAggregator, UnderflowWarnsAndReturnsNothing) {
    auto logging = log::LogSetup::trySetUp();
    ASSERT_NE(logging, nullptr);
    BufferAggregator buffer(2, 8, 1);
    const xt::xarray<float> ramp = {{0.0F, 1.0F, 2.0F}, {100.0F, 101.0F, 102.0F}};
    const std::string printed = test::stdoutOf([&] {
        EXPECT_EQ(buffer.get(0, 0).dimension(), 0u);
        buffer.push(ramp);
        EXPECT_EQ(buffer.get(4, 0).dimension(), 0u);
    });
    // Only the two warnings print at the default threshold.
    const auto lines = test::linesWith(printed, "");
    ASSERT_EQ(lines.size(), 2u) << printed;
    EXPECT_NE(lines[0].find("[BufferAggregator::get@"), std::string::npos) << printed;
    EXPECT_THAT(lines[0], EndsWith("BufferAggregator::get - cannot return requested size: 0, current length: 0"));
    EXPECT_THAT(lines[1], EndsWith("BufferAggregator::get - cannot return requested size: 4, current length: 3"));
    EXPECT_EQ(buffer.get(0, 0), ramp);
}

}  // namespace
}  // namespace tonwerk
