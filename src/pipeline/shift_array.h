// In-place left shift along the last axis with zero fill.
#pragma once

#include <xtensor/xtensor.hpp>

#include <cstddef>

namespace tonwerk {

void shiftArray(xt::xtensor<float, 1>& a, std::size_t step);
// Every row moves by the same step.
void shiftArray(xt::xtensor<float, 2>& a, std::size_t step);

}  // namespace tonwerk
