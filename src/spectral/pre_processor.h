// Frames a chunk of audio into the model's sliding spectrogram, runs the
// model once and returns every stem's packed spectra for the new frames.
#pragma once

#include "inference/inference.h"
#include "spectral/pffft_transformer.h"

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace tonwerk {

// Not thread-safe; one stream per object (there is no reset).
class PreProcessor {
public:
    PreProcessor(std::uint64_t channelCount, std::uint64_t fftSize, std::uint64_t hopSize, std::vector<float> window,
                 std::shared_ptr<IInference> inference, std::uint64_t frameCount, bool keepEdgeFrames,
                 std::uint64_t outputCount);

    // `input` is {channels, L} with fftSize <= L <= maxInputLength(). Returns
    // {outputCount, channels, M * fftSize} for M returned frames, or a
    // dimensionless array when the model run failed.
    xt::xarray<float> process(const xt::xtensor<float, 2>& input, bool eof);

    // Longest input whose frames fit together with the held edge frames.
    std::uint64_t maxInputLength() const;

private:
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
    xt::xarray<float> heldBackSpectrum;
    bool firstCall = true;
};

}  // namespace tonwerk
