#include "pipeline/overlap_add_synthesizer.h"

#include "common/shape_text.h"
#include "pipeline/shift_array.h"
#include "spectral/frame_checks.h"

#include <xtensor/xadapt.hpp>
#include <xtensor/xview.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

// The batched form always lays its result out over two rows.
constexpr std::size_t kBatchRows = 2;

}  // namespace

OverlapAddSynthesizer::OverlapAddSynthesizer(std::size_t channels, std::size_t fftSize, std::size_t hop,
                                             std::vector<float> window)
    : PFFFTTransformer(fftSize, false),
      fftSize(fftSize),
      hop(hop),
      window(xt::adapt(window, {window.size()})),
      windowSquared(xt::zeros<float>({fftSize})),
      accumulator(xt::zeros<float>({channels, fftSize})),
      windowSum(xt::zeros<float>({fftSize})),
      samples(xt::xtensor<float, 2>::from_shape({channels, fftSize})) {
    requireWindowLength(this->window.size(), fftSize, "OverlapAddSynthesizer");
    for (std::size_t i = 0; i < fftSize; ++i) {
        windowSquared(i) = this->window(i) * this->window(i);
    }
}

xt::xtensor<float, 2> OverlapAddSynthesizer::processFrame(const xt::xtensor<float, 2>& frame) {
    const std::size_t emitted = std::min(hop, fftSize);
    xt::xtensor<float, 2> out = xt::xtensor<float, 2>::from_shape({accumulator.shape()[0], emitted});
    processFrameInto(frame, out.data(), emitted, 0, emitted);
    return out;
}

std::size_t OverlapAddSynthesizer::processFrameInto(const xt::xtensor<float, 2>& frame, float* rows,
                                                    std::size_t rowStride, std::size_t first, std::size_t last) {
    const std::size_t channels = accumulator.shape()[0];
    if (frame.shape()[0] != channels || frame.shape()[1] != fftSize) {
        throw std::invalid_argument("OverlapAddSynthesizer: frame of shape " + std::to_string(frame.shape()[0]) +
                                    "x" + std::to_string(frame.shape()[1]) + " does not match " +
                                    std::to_string(channels) + "x" + std::to_string(fftSize));
    }
    for (std::size_t c = 0; c < channels; ++c) {
        transformRow(frame.data() + c * fftSize, fftSize, samples.data() + c * fftSize, false);
    }

    // Each value is scaled exactly as inverse() scales it, so the streaming
    // and the array forms agree to the bit.
    const float n = static_cast<float>(fftSize);
    const float* w = window.data();
    const float* t = samples.data();
    float* acc = accumulator.data();
    for (std::size_t c = 0; c < channels; ++c) {
        for (std::size_t i = 0; i < fftSize; ++i) {
            // Product first, then the sum, both rounded to float.
            const float weighted = (t[c * fftSize + i] / n) * w[i];
            acc[c * fftSize + i] = weighted + acc[c * fftSize + i];
        }
    }
    const float* w2 = windowSquared.data();
    float* sum = windowSum.data();
    for (std::size_t i = 0; i < fftSize; ++i) {
        sum[i] += w2[i];
    }

    // No floor on the divisor: the huge first samples of a stream fall in the
    // lead-in that the chunk pipeline cuts away.
    const std::size_t emitted = std::min(hop, fftSize);
    last = std::min(last, emitted);
    for (std::size_t c = 0; first < last && c < channels; ++c) {
        float* row = rows + c * rowStride;
        for (std::size_t i = first; i < last; ++i) {
            row[i - first] = acc[c * fftSize + i] / sum[i];
        }
    }
    shiftArray(accumulator, hop);
    shiftArray(windowSum, hop);
    return emitted;
}

xt::xarray<float> OverlapAddSynthesizer::process(xt::xarray<float> frame) {
    if (frame.dimension() == 2) {
        const xt::xtensor<float, 2> single = frame;
        return processFrame(single);
    }
    if (frame.dimension() != 3) {
        throw std::invalid_argument("OverlapAddSynthesizer: frames of shape " + shapeText(frame) +
                                    " are neither rank 2 nor rank 3");
    }
    const std::size_t channels = frame.shape()[0];
    const std::size_t count = frame.shape()[2];
    if (count == 0) {
        return xt::xarray<float>::from_shape({kBatchRows, 0});
    }
    if (channels > kBatchRows) {
        throw std::invalid_argument("OverlapAddSynthesizer: batched frames support at most 2 channels, got " +
                                    std::to_string(channels));
    }
    xt::xarray<float> result = xt::zeros<float>({kBatchRows, count * hop});
    std::size_t written = 0;
    for (std::size_t k = 0; k < count; ++k) {
        const xt::xtensor<float, 2> single = xt::view(frame, xt::all(), xt::all(), k);
        const xt::xtensor<float, 2> piece = processFrame(single);
        const std::size_t width = piece.shape()[1];
        xt::view(result, xt::range(0, channels), xt::range(written, written + width)) = piece;
        written += width;
    }
    if (written < count * hop) {
        return xt::view(result, xt::all(), xt::range(0, written));
    }
    return result;
}

xt::xtensor<float, 2> OverlapAddSynthesizer::tail() const {
    const std::size_t channels = accumulator.shape()[0];
    const std::size_t pending = fftSize > hop ? fftSize - hop : 0;
    xt::xtensor<float, 2> out = xt::xtensor<float, 2>::from_shape({channels, pending});
    for (std::size_t c = 0; c < channels; ++c) {
        for (std::size_t i = 0; i < pending; ++i) {
            out(c, i) = accumulator(c, i) / windowSum(i);
        }
    }
    return out;
}

}  // namespace tonwerk
