#include "pipeline/shift_array.h"

#include <gtest/gtest.h>

namespace tonwerk {
namespace {

// Rows shift independently: nothing of a row's neighbour may leak into its end.
TEST(ShiftArray, MovesEveryRowLeftAndZeroFills) {
    xt::xtensor<float, 1> a = {1, 2, 3, 4, 5};
    shiftArray(a, 0);
    EXPECT_EQ(a, (xt::xtensor<float, 1>{1, 2, 3, 4, 5}));
    shiftArray(a, 2);
    EXPECT_EQ(a, (xt::xtensor<float, 1>{3, 4, 5, 0, 0}));
    shiftArray(a, 9);
    EXPECT_EQ(a, (xt::xtensor<float, 1>{0, 0, 0, 0, 0}));

    xt::xtensor<float, 2> b = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}};
    shiftArray(b, 1);
    EXPECT_EQ(b, (xt::xtensor<float, 2>{{2, 3, 4, 0}, {6, 7, 8, 0}, {10, 11, 12, 0}}));
    shiftArray(b, 3);
    EXPECT_EQ(b, (xt::xtensor<float, 2>{{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}}));
}

}  // namespace
}  // namespace tonwerk
