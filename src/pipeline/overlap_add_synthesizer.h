// Turns one stem's stream of packed spectra frames back into audio by
// windowed overlap-add, normalised by the accumulated squared window.
#pragma once

#include "spectral/pffft_transformer.h"

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include <cstddef>
#include <vector>

namespace tonwerk {

// One continuous stream per object; not thread-safe.
class OverlapAddSynthesizer : public PFFFTTransformer {
public:
    OverlapAddSynthesizer(std::size_t channels, std::size_t fftSize, std::size_t hop, std::vector<float> window);

    // One frame {channels, fftSize} gives {channels, hop} samples.
    xt::xtensor<float, 2> processFrame(const xt::xtensor<float, 2>& frame);

    // processFrame for streaming callers, allocating nothing: of the
    // min(hop, fftSize) samples the frame completes, those at [first, last)
    // go to `rows`, channel c's at rows + c * rowStride; the others only
    // advance the overlap. Returns how many samples the frame completed.
    std::size_t processFrameInto(const xt::xtensor<float, 2>& frame, float* rows, std::size_t rowStride,
                                 std::size_t first, std::size_t last);

    // Rank 2: as processFrame. Rank 3 {channels, fftSize, k}: k frames in
    // order, concatenated ({2, 0} when k is 0).
    xt::xarray<float> process(xt::xarray<float> frame);

    // The samples whose overlap-add is still incomplete, {channels, fftSize - hop}.
    xt::xtensor<float, 2> tail() const;

private:
    std::size_t fftSize;
    std::size_t hop;
    xt::xtensor<float, 1> window;
    xt::xtensor<float, 1> windowSquared;
    xt::xtensor<float, 2> accumulator;
    xt::xtensor<float, 1> windowSum;
    // The unscaled inverse of the current frame, {channels, fftSize}.
    xt::xtensor<float, 2> samples;
};

}  // namespace tonwerk
