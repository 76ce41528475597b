#include "spectral/window.h"

#include "test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

namespace tonwerk {
namespace {

// 0.42f - 0.5f + 0.08f in single precision; evaluating in double would give ~0.
constexpr float kBlackmanEdge = -1.4901161193847656e-08f;

TEST(Window, BlackmanIsPeriodicAndSinglePrecision) {
    const auto one = makeWindow(Blackman, 1);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0], kBlackmanEdge);

    // Periodic: the peak sits at L/2 (a symmetric window of 4 has no sample at its peak).
    const auto four = makeWindow(Blackman, 4);
    ASSERT_EQ(four.size(), 4u);
    EXPECT_EQ(four[0], kBlackmanEdge);
    EXPECT_NEAR(four[1], 0.34f, 4 * 3e-8);  // a few ulp of 0.34
    EXPECT_NEAR(four[3], 0.34f, 4 * 3e-8);
    EXPECT_NEAR(four[2], 1.0f, 6e-8);  // one ulp below 1
}

// Symmetric: the denominator is length - 1, so length 1 divides 0 by 0 and NaN is the defined result.
TEST(Window, SymmetricShapesEmptyAndInvalidRequests) {
    const auto hann = makeWindow(Hann, 5);
    EXPECT_EQ(hann, (std::vector<float>{0.0f, 0.5f, 1.0f, 0.5f, 0.0f}));
    const auto hamming = makeWindow(Hamming, 5);
    ASSERT_EQ(hamming.size(), 5u);
    for (std::size_t i = 0; i < 5; ++i) EXPECT_FLOAT_EQ(hamming[i], (std::vector<float>{0.08f, 0.54f, 1.0f, 0.54f, 0.08f})[i]);
    EXPECT_TRUE(std::isnan(makeWindow(Hann, 1)[0]));
    EXPECT_TRUE(std::isnan(makeWindow(Hamming, 1)[0]));

    for (WindowType type : {Hann, Hamming, Blackman}) EXPECT_TRUE(makeWindow(type, 0).empty());
    for (int bad : {3, -1}) {
        EXPECT_EQ(test::runtimeErrorOf([&] { makeWindow(static_cast<WindowType>(bad), 8); }), "Unknown window type")
            << "type " << bad;
    }
    EXPECT_THROW(makeWindow(Blackman, -1), std::length_error);
}

}  // namespace
}  // namespace tonwerk
