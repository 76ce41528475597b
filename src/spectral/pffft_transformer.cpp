#include "spectral/pffft_transformer.h"

#include <pffft.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

// PFFFT asserts on real sizes that are not a multiple of 32 (and misbehaves
// when asserts are compiled out) instead of returning null, so only sizes
// it can handle are handed to it; anything else leaves the setup null.
PFFFT_Setup* makeRealSetup(std::uint64_t size) {
    if (size == 0 || size % 32 != 0 || size > static_cast<std::uint64_t>(INT_MAX)) {
        return nullptr;
    }
    return pffft_new_setup(static_cast<int>(size), PFFFT_REAL);
}

float* allocateZeroed(std::uint64_t count) {
    // A zero-sized request still yields a valid pointer to free later.
    const std::size_t bytes = std::max<std::uint64_t>(count, 1) * sizeof(float);
    void* memory = pffft_aligned_malloc(bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    std::memset(memory, 0, bytes);
    return static_cast<float*>(memory);
}

}  // namespace

PFFFTTransformer::PFFFTTransformer(std::uint64_t size, bool padNyquist)
    : setup(makeRealSetup(size)), inputScratch(nullptr), outputScratch(nullptr), padNyquist(padNyquist), size(size) {
    try {
        inputScratch = allocateZeroed(size);
        outputScratch = allocateZeroed(size);
    } catch (...) {
        pffft_aligned_free(inputScratch);
        if (setup != nullptr) {
            pffft_destroy_setup(setup);
        }
        throw;
    }
}

PFFFTTransformer::~PFFFTTransformer() {
    pffft_aligned_free(inputScratch);
    pffft_aligned_free(outputScratch);
    if (setup != nullptr) {
        pffft_destroy_setup(setup);
    }
}

xt::xtensor<float, 2> PFFFTTransformer::forward(const xt::xtensor<float, 2>& input) {
    return transform(input, true);
}

xt::xtensor<float, 2> PFFFTTransformer::inverse(const xt::xtensor<float, 2>& input) {
    return transform(input, false);
}

std::size_t PFFFTTransformer::rowOutputWidth(std::size_t inWidth, bool forwardDirection) const {
    if (setup == nullptr) {
        throw std::invalid_argument("PFFFTTransformer: FFT size " + std::to_string(size) +
                                    " is not supported for real transforms");
    }
    // A padded inverse row carries a trailing (0, 0) pair that is not transformed.
    const std::size_t maxInWidth = (padNyquist && !forwardDirection) ? size + 2 : size;
    if (inWidth > maxInWidth) {
        throw std::invalid_argument("PFFFTTransformer: row of " + std::to_string(inWidth) +
                                    " values does not fit FFT size " + std::to_string(size));
    }
    if (padNyquist && !forwardDirection && inWidth < 2) {
        throw std::invalid_argument("PFFFTTransformer: padded spectrum row needs at least 2 values");
    }
    if (!padNyquist) {
        return inWidth;
    }
    return forwardDirection ? inWidth + 2 : inWidth - 2;
}

void PFFFTTransformer::transformRow(const float* source, std::size_t inWidth, float* target, bool forwardDirection) {
    transformCheckedRow(source, inWidth, target, rowOutputWidth(inWidth, forwardDirection), forwardDirection);
}

void PFFFTTransformer::transformAlignedRow(float* row, float* work, bool forwardDirection) {
    if (padNyquist) {
        throw std::invalid_argument("PFFFTTransformer: in-place rows need a transformer without Nyquist padding");
    }
    rowOutputWidth(size, forwardDirection);
    pffft_transform_ordered(setup, row, row, work, forwardDirection ? PFFFT_FORWARD : PFFFT_BACKWARD);
    if (forwardDirection) {
        row[1] = 0.0f;
    }
}

void PFFFTTransformer::transformCheckedRow(const float* source, std::size_t inWidth, float* target,
                                           std::size_t outWidth, bool forwardDirection) {
    const std::size_t copyIn = std::min<std::size_t>(inWidth, size);
    const std::size_t copyOut = std::min<std::size_t>(outWidth, size);
    if (copyIn != 0) {  // an empty row may come with no storage at all
        std::memcpy(inputScratch, source, copyIn * sizeof(float));
    }
    pffft_transform_ordered(setup, inputScratch, outputScratch, nullptr,
                            forwardDirection ? PFFFT_FORWARD : PFFFT_BACKWARD);
    if (forwardDirection) {
        // The packed Nyquist slot is never part of a forward spectrum.
        outputScratch[1] = 0.0f;
    }
    if (copyOut != 0) {
        std::memcpy(target, outputScratch, copyOut * sizeof(float));
    }
    if (forwardDirection && padNyquist) {
        target[outWidth - 2] = 0.0f;
        target[outWidth - 1] = 0.0f;
    }
}

xt::xtensor<float, 2> PFFFTTransformer::transform(const xt::xtensor<float, 2>& input, bool forwardDirection) {
    const std::size_t rows = input.shape()[0];
    const std::size_t inWidth = input.shape()[1];
    const std::size_t outWidth = rowOutputWidth(inWidth, forwardDirection);

    xt::xtensor<float, 2> result = xt::xtensor<float, 2>::from_shape({rows, outWidth});
    for (std::size_t r = 0; r < rows; ++r) {
        transformCheckedRow(input.data() + r * inWidth, inWidth, result.data() + r * outWidth, outWidth,
                            forwardDirection);
    }
    if (!forwardDirection) {
        // Scaled once, on the finished array, so inverse(forward(x)) == x.
        result /= static_cast<float>(outWidth);
    }
    return result;
}

}  // namespace tonwerk
