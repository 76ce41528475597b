#include "pipeline/overlap_add_synthesizer.h"

#include "common/shape_text.h"
#include "pipeline/shift_array.h"
#include "spectral/frame_checks.h"

#include <xtensor/xadapt.hpp>
#include <xtensor/xview.hpp>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

// The batched form always lays its result out over two rows.
constexpr std::size_t kBatchRows = 2;

bool isPowerOfTwo(std::size_t n) { return n != 0 && (n & (n - 1)) == 0; }

// acc[i] = (t[i] / n) * w[i] + acc[i], product first, then the sum, each
// rounded to float. Dividing by a power of two and multiplying by its exact
// inverse give the same float, so the faster form serves whenever it may.
void addWeighted(float* __restrict acc, const float* __restrict t, const float* __restrict w, std::size_t count,
                 float n, float inverseScale) {
    if (inverseScale != 0.0F) {
        for (std::size_t i = 0; i < count; ++i) acc[i] = (t[i] * inverseScale) * w[i] + acc[i];
    } else {
        for (std::size_t i = 0; i < count; ++i) acc[i] = (t[i] / n) * w[i] + acc[i];
    }
}

void divide(float* __restrict out, const float* __restrict acc, const float* __restrict divisor, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) out[i] = acc[i] / divisor[i];
}

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
      previousWindowSum(xt::zeros<float>({fftSize})),
      divisor(xt::zeros<float>({std::min(hop, fftSize)})),
      staged(channels * fftSize),
      work(fftSize),
      inverseScale(isPowerOfTwo(fftSize) ? 1.0F / static_cast<float>(fftSize) : 0.0F) {
    requireWindowLength(this->window.size(), fftSize, "OverlapAddSynthesizer");
    for (std::size_t i = 0; i < fftSize; ++i) {
        windowSquared(i) = this->window(i) * this->window(i);
    }
}

xt::xtensor<float, 2> OverlapAddSynthesizer::processFrame(const xt::xtensor<float, 2>& frame) {
    const std::size_t emitted = std::min(hop, fftSize);
    xt::xtensor<float, 2> out = xt::xtensor<float, 2>::from_shape({channelCount(), emitted});
    processFrameInto(frame, out.data(), emitted, 0, emitted);
    return out;
}

std::size_t OverlapAddSynthesizer::processFrameInto(const xt::xtensor<float, 2>& frame, float* rows,
                                                    std::size_t rowStride, std::size_t first, std::size_t last) {
    const std::size_t channels = channelCount();
    if (frame.shape()[0] != channels || frame.shape()[1] != fftSize) {
        throw std::invalid_argument("OverlapAddSynthesizer: frame of shape " + std::to_string(frame.shape()[0]) +
                                    "x" + std::to_string(frame.shape()[1]) + " does not match " +
                                    std::to_string(channels) + "x" + std::to_string(fftSize));
    }
    if (frame.size() != 0) {
        std::memcpy(staged.data(), frame.data(), frame.size() * sizeof(float));
    }
    return processStagedFrame(false, rows, rowStride, first, last);
}

std::size_t OverlapAddSynthesizer::processStagedFrame(bool silent, float* rows, std::size_t rowStride,
                                                      std::size_t first, std::size_t last) {
    if (!silent) {
        for (std::size_t c = 0; c < channelCount(); ++c) {
            transformAlignedRow(staged.data() + c * fftSize, work.data(), false);
            accumulate(c);
        }
        ringClean = false;
        quietFrames = 0;
    }
    const float* sums = advanceWindowSum();
    // No floor on the divisor: the huge first samples of a stream fall in the
    // lead-in that the chunk pipeline cuts away.
    const std::size_t emitted = std::min(hop, fftSize);
    last = std::min(last, emitted);
    if (ringClean && windowSumSettled && divisorPositive) {
        for (std::size_t c = 0; first < last && c < channelCount(); ++c) {
            std::fill(rows + c * rowStride, rows + c * rowStride + (last - first), 0.0F);
        }
    } else {
        emit(sums, rows, rowStride, first, last);
    }
    retireEmitted();
    // Each retirement zeroes the next hop slots; once a whole ring's worth
    // has gone since the last sound came in, every slot is +0 again.
    if (!ringClean && ++quietFrames * hop >= fftSize) {
        ringClean = silent;
    }
    return emitted;
}

void OverlapAddSynthesizer::accumulate(std::size_t channel) {
    const float n = static_cast<float>(fftSize);
    const float* t = staged.data() + channel * fftSize;
    float* ring = accumulator.data() + channel * fftSize;
    const std::size_t toEnd = fftSize - ringStart;
    addWeighted(ring + ringStart, t, window.data(), toEnd, n, inverseScale);
    addWeighted(ring, t + toEnd, window.data() + toEnd, ringStart, n, inverseScale);
}

const float* OverlapAddSynthesizer::advanceWindowSum() {
    if (windowSumSettled) {
        return divisor.data();
    }
    std::copy(windowSum.begin(), windowSum.end(), previousWindowSum.begin());
    float* sum = windowSum.data();
    const float* w2 = windowSquared.data();
    for (std::size_t i = 0; i < fftSize; ++i) {
        sum[i] += w2[i];
    }
    std::copy(sum, sum + divisor.size(), divisor.begin());
    shiftArray(windowSum, hop);
    // The sums depend on nothing but themselves: once a frame leaves them as
    // it found them, every later frame does too.
    windowSumSettled = std::memcmp(windowSum.data(), previousWindowSum.data(), fftSize * sizeof(float)) == 0;
    divisorPositive = std::all_of(divisor.begin(), divisor.end(), [](float d) { return d > 0.0F; });
    return divisor.data();
}

void OverlapAddSynthesizer::emit(const float* sums, float* rows, std::size_t rowStride, std::size_t first,
                                 std::size_t last) {
    if (first >= last) {
        return;
    }
    const std::size_t start = ringIndex(first);
    const std::size_t unwrapped = std::min(last - first, fftSize - start);
    for (std::size_t c = 0; c < channelCount(); ++c) {
        const float* ring = accumulator.data() + c * fftSize;
        float* row = rows + c * rowStride;
        divide(row, ring + start, sums + first, unwrapped);
        divide(row + unwrapped, ring, sums + first + unwrapped, last - first - unwrapped);
    }
}

void OverlapAddSynthesizer::retireEmitted() {
    if (ringClean) {
        ringStart = fftSize == 0 ? 0 : (ringStart + hop) % fftSize;
        return;
    }
    const std::size_t emitted = std::min(hop, fftSize);
    const std::size_t unwrapped = std::min(emitted, fftSize - ringStart);
    for (std::size_t c = 0; c < channelCount(); ++c) {
        float* ring = accumulator.data() + c * fftSize;
        std::fill(ring + ringStart, ring + ringStart + unwrapped, 0.0F);
        std::fill(ring, ring + (emitted - unwrapped), 0.0F);
    }
    ringStart = fftSize == 0 ? 0 : (ringStart + hop) % fftSize;
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
    const std::size_t frameChannels = frame.shape()[0];
    const std::size_t count = frame.shape()[2];
    if (count == 0) {
        return xt::xarray<float>::from_shape({kBatchRows, 0});
    }
    if (frameChannels > kBatchRows) {
        throw std::invalid_argument("OverlapAddSynthesizer: batched frames support at most 2 channels, got " +
                                    std::to_string(frameChannels));
    }
    xt::xarray<float> result = xt::zeros<float>({kBatchRows, count * hop});
    std::size_t written = 0;
    for (std::size_t k = 0; k < count; ++k) {
        const xt::xtensor<float, 2> single = xt::view(frame, xt::all(), xt::all(), k);
        const xt::xtensor<float, 2> piece = processFrame(single);
        const std::size_t width = piece.shape()[1];
        xt::view(result, xt::range(0, frameChannels), xt::range(written, written + width)) = piece;
        written += width;
    }
    if (written < count * hop) {
        return xt::view(result, xt::all(), xt::range(0, written));
    }
    return result;
}

xt::xtensor<float, 2> OverlapAddSynthesizer::tail() const {
    const std::size_t pending = fftSize > hop ? fftSize - hop : 0;
    xt::xtensor<float, 2> out = xt::xtensor<float, 2>::from_shape({channelCount(), pending});
    for (std::size_t c = 0; c < channelCount(); ++c) {
        for (std::size_t i = 0; i < pending; ++i) {
            out(c, i) = accumulator(c, ringIndex(i)) / windowSum(i);
        }
    }
    return out;
}

}  // namespace tonwerk
