#include "pipeline/shift_array.h"

#include "common/logging.h"

#include <algorithm>
#include <cstring>

namespace tonwerk {
namespace {

// Shifts `rows` contiguous rows of `length` values left by `step` in place.
// One overlapping move of the whole block puts every kept value where it
// belongs (row r's tail briefly receives the head of row r + 1); the zero
// fill of each row's vacated end then overwrites those stray values.
void shiftRows(float* data, std::size_t rows, std::size_t length, std::size_t step, int rank) {
    TW_LOG(verbose, "shiftArray") << "shiftArray called with step: " << step << ", input dimension: " << rank
                                  << ", input length: " << length;
    if (length <= step) {
        TW_LOG(verbose, "shiftArray") << "Shift step >= input size, filling with zeros";
        std::fill(data, data + rows * length, 0.0f);
        return;
    }
    if (step == 0 || rows == 0) {
        return;
    }
    std::memmove(data, data + step, (rows * length - step) * sizeof(float));
    for (std::size_t r = 0; r < rows; ++r) {
        float* row = data + r * length;
        std::fill(row + (length - step), row + length, 0.0f);
    }
}

}  // namespace

void shiftArray(xt::xtensor<float, 1>& a, std::size_t step) {
    shiftRows(a.data(), 1, a.shape()[0], step, 1);
}

void shiftArray(xt::xtensor<float, 2>& a, std::size_t step) {
    shiftRows(a.data(), a.shape()[0], a.shape()[1], step, 2);
}

}  // namespace tonwerk
