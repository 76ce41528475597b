// Turns one stem's stream of packed spectra frames back into audio by
// windowed overlap-add, normalised by the accumulated squared window.
#pragma once

#include "spectral/aligned_floats.h"
#include "spectral/pffft_transformer.h"

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include <cstddef>
#include <vector>

namespace tonwerk {

// One continuous stream per object; not thread-safe.
//
// The overlap-add accumulator is a ring: the oldest incomplete sample sits
// at `ringStart` rather than at position 0, so a frame costs no moves of the
// accumulator. Every value is still computed as the shifting form computes
// it (same operations, same order), so results are the same to the bit.
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

    // The frame processStagedFrame() reads: channel c's packed spectrum at
    // stagedFrame() + c * fftSize. Callers that produce spectra write them
    // here directly instead of through an intermediate array.
    float* stagedFrame() { return staged.data(); }

    // processFrameInto on the frame in stagedFrame(), which the call
    // overwrites. `silent` says that every staged value is +0 or -0: the
    // inverse transform and the overlap-add are then skipped, which is exact,
    // as adding their signed zeros leaves every accumulated value as it was.
    std::size_t processStagedFrame(bool silent, float* rows, std::size_t rowStride, std::size_t first,
                                   std::size_t last);

    // Rank 2: as processFrame. Rank 3 {channels, fftSize, k}: k frames in
    // order, concatenated ({2, 0} when k is 0).
    xt::xarray<float> process(xt::xarray<float> frame);

    // The samples whose overlap-add is still incomplete, {channels, fftSize - hop}.
    xt::xtensor<float, 2> tail() const;

private:
    void accumulate(std::size_t channel);
    // The squared-window sums that divide this frame's samples: adds the
    // window to windowSum and shifts it until it repeats itself exactly, then
    // reuses the sums of that fixed point.
    const float* advanceWindowSum();
    void emit(const float* divisor, float* rows, std::size_t rowStride, std::size_t first, std::size_t last);
    // Zeroes the emitted samples' slots, which the next frame's last hop
    // starts from, and moves the ring on.
    void retireEmitted();
    // Ring index of logical position `i` (0 = oldest incomplete sample).
    std::size_t ringIndex(std::size_t i) const { return (ringStart + i) % fftSize; }
    std::size_t channelCount() const { return accumulator.shape()[0]; }

    std::size_t fftSize;
    std::size_t hop;
    xt::xtensor<float, 1> window;
    xt::xtensor<float, 1> windowSquared;
    // {channels, fftSize}, a ring per channel starting at ringStart.
    xt::xtensor<float, 2> accumulator;
    std::size_t ringStart = 0;
    // Linear, position 0 = oldest incomplete sample, as after each frame.
    xt::xtensor<float, 1> windowSum;
    // windowSum before the latest frame, to notice when it stops changing.
    xt::xtensor<float, 1> previousWindowSum;
    bool windowSumSettled = false;
    // Divisors of the emitted samples: this frame's, or the settled ones.
    xt::xtensor<float, 1> divisor;
    // Every settled divisor is above zero, so that +0 divided by it is +0.
    bool divisorPositive = false;
    // Every accumulated value is +0: nothing but silent frames since all
    // slots were last retired. Its samples are then +0 without dividing.
    bool ringClean = true;
    std::size_t quietFrames = 0;
    AlignedFloats staged;
    AlignedFloats work;
    // 1/N when that is exact (N a power of two), so scaling multiplies.
    float inverseScale = 0.0F;
};

}  // namespace tonwerk
