// Frames a chunk of audio into the model's sliding spectrogram, runs the
// model once and returns every stem's packed spectra for the new frames.
#pragma once

#include "inference/inference.h"
#include "spectral/aligned_floats.h"
#include "spectral/pffft_transformer.h"

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace tonwerk {

// Not thread-safe; one stream at a time.
class PreProcessor {
public:
    PreProcessor(std::uint64_t channelCount, std::uint64_t fftSize, std::uint64_t hopSize, std::vector<float> window,
                 std::shared_ptr<IInference> inference, std::uint64_t frameCount, bool keepEdgeFrames,
                 std::uint64_t outputCount);

    // `input` is {channels, L} with fftSize <= L <= maxInputLength(). Returns
    // {outputCount, channels, M * fftSize} for M returned frames, or a
    // dimensionless array when the model run failed. Throws
    // std::invalid_argument for an input too short for one frame or with more
    // new frames than the spectrogram can take.
    xt::xarray<float> process(const xt::xtensor<float, 2>& input, bool eof);

    // The frames a call hands out: spectrogram slots [first, last). `ok` is
    // false when the model run failed (no frames then).
    struct FrameRange {
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        bool ok = false;
        std::uint64_t count() const { return ok ? last - first : 0; }
    };

    // Everything process() does except building its result: the frames stay
    // in the model's output buffers, where packFrame() reads them until the
    // next call. Streaming callers use this to avoid materialising every
    // stem's spectra at once.
    FrameRange analyse(const xt::xtensor<float, 2>& input, bool eof);
    // As above on columns [firstColumn, L) of `source` ({channels, L}), read
    // in place, so a caller can drop leading samples without copying.
    FrameRange analyse(const xt::xarray<float>& source, std::uint64_t firstColumn, bool eof);

    // Frame `slot` of model output `output` for every channel, packed as the
    // inverse transform reads it, into `frame` ({channels, fftSize}).
    void packFrame(std::uint64_t output, std::uint64_t slot, xt::xtensor<float, 2>& frame) const;
    // The same into `frame`, channel c at frame + c * fftSize, unchecked.
    void packFrameInto(std::uint64_t output, std::uint64_t slot, float* frame) const;
    // True when every value of that frame is +0 or -0: the model left it
    // silent (as it leaves stems that are not selected).
    bool frameSilent(std::uint64_t output, std::uint64_t slot) const;

    // Starts a new stream in the same memory: the spectrogram is silent again
    // and nothing is held back, as in a new object. For live use, where a
    // new object would mean tens of megabytes allocated again.
    void restart();

    // Longest input whose frames fit together with the held edge frames.
    std::uint64_t maxInputLength() const;

    // Most new frames the next call may bring: every slot of the spectrogram
    // on the first call, one fewer once a frame is held back.
    std::uint64_t maxNewFrames() const;

private:
    void shiftSpectrogram(std::uint64_t newFrames);
    // The body of both analyse() forms: `rows` channels of `length` samples,
    // channel c starting at first + c * rowStride.
    FrameRange analyseRows(const float* first, std::uint64_t rows, std::uint64_t rowStride, std::uint64_t length,
                           bool eof);
    void writeNewFrames(const float* first, std::uint64_t rowStride, std::uint64_t length, std::uint64_t newFrames);
    // Every output's frames in slots [firstSlot, lastSlot), packed as the
    // inverse transform reads them: {outputCount, channels, frames * fftSize}.
    xt::xarray<float> packFrames(std::uint64_t firstSlot, std::uint64_t lastSlot) const;
    // The same into `packed`, whose storage is kept when its size matches.
    void packFramesInto(std::uint64_t firstSlot, std::uint64_t lastSlot, xt::xarray<float>& packed) const;
    // One channel's frame at `slot` of output `output`, interleaved into `dst`.
    void packInto(std::uint64_t output, std::uint64_t channel, std::uint64_t slot, float* dst) const;
    // Plane `plane` (real and imaginary part of each channel in turn) of
    // model output `output`, from frame `slot` on.
    const float* outputPlane(std::uint64_t output, std::uint64_t plane, std::uint64_t slot) const;

    std::uint64_t channelCount;
    std::uint64_t fftSize;
    std::uint64_t hopSize;
    std::uint64_t outputCount;
    xt::xtensor<float, 1> window;
    std::shared_ptr<IInference> inference;
    PFFFTTransformer fft;
    std::uint64_t frameCount;
    bool keepEdgeFrames;
    std::uint64_t edgeFrames = 0;
    xt::xtensor<float, 3> spectrogram;
    // Refilled by every call, so its storage is reused rather than
    // allocated again for each chunk.
    xt::xarray<float> heldBackSpectrum;
    bool firstCall = true;
    // {outputCount, 2 * channels, frameCount, fftSize / 2}: the model writes
    // every element of every output on each run.
    xt::xtensor<float, 4> modelOutputs;
    // One windowed frame of one channel, transformed in place.
    AlignedFloats frameScratch;
    AlignedFloats fftWork;
};

}  // namespace tonwerk
