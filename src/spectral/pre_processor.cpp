#include "spectral/pre_processor.h"

#include "common/fresh_pages.h"
#include "common/logging.h"
#include "common/shape_text.h"
#include "spectral/frame_checks.h"

#include <xtensor/xadapt.hpp>
#include <xtensor/xbuilder.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

// True when every value is +0 or -0. Blocks of a fixed length OR their bits
// together (a loop the compiler turns into vector code); sound is usually
// found in the first block, silence costs one pass at memory speed.
bool allZeros(const float* values, std::uint64_t count) {
    constexpr std::uint64_t kBlock = 64;
    std::uint64_t at = 0;
    for (; at + kBlock <= count; at += kBlock) {
        std::uint32_t bits[kBlock];
        std::memcpy(bits, values + at, sizeof bits);
        std::uint32_t any = 0;
        for (const std::uint32_t b : bits) any |= b;
        if ((any & 0x7FFFFFFFU) != 0) return false;
    }
    for (; at < count; ++at) {
        std::uint32_t b = 0;
        std::memcpy(&b, values + at, sizeof b);
        if ((b & 0x7FFFFFFFU) != 0) return false;
    }
    return true;
}

}  // namespace

PreProcessor::PreProcessor(std::uint64_t channelCount, std::uint64_t fftSize, std::uint64_t hopSize,
                           std::vector<float> analysisWindow, std::shared_ptr<IInference> inference,
                           std::uint64_t frameCount, bool keepEdgeFrames, std::uint64_t outputCount)
    : channelCount(channelCount),
      fftSize(fftSize),
      hopSize(hopSize),
      outputCount(outputCount),
      window(xt::adapt(analysisWindow, std::array<std::size_t, 1>{analysisWindow.size()})),
      inference(std::move(inference)),
      fft(fftSize, false),
      frameCount(frameCount),
      keepEdgeFrames(keepEdgeFrames),
      frameScratch(fftSize),
      fftWork(fftSize) {
    requireNonZeroHop(hopSize, "PreProcessor");
    requireWindowLength(this->window.size(), fftSize, "PreProcessor");
    // Tens of MB that the first model run writes in full: mapped in one
    // request each rather than page by page.
    spectrogram = xt::xtensor<float, 3>::from_shape({2 * channelCount, frameCount, fftSize / 2});
    prepareForWriting(spectrogram.data(), spectrogram.size() * sizeof(float));
    std::fill(spectrogram.begin(), spectrogram.end(), 0.0F);
    // The model overwrites every output completely, so its buffers and the
    // framing scratch are made once and reused by every call.
    modelOutputs = xt::xtensor<float, 4>::from_shape({outputCount, 2 * channelCount, frameCount, fftSize / 2});
    prepareForWriting(modelOutputs.data(), modelOutputs.size() * sizeof(float));
}

std::uint64_t PreProcessor::maxInputLength() const {
    return (frameCount - edgeFrames - 1) * hopSize + fftSize;
}

std::uint64_t PreProcessor::maxNewFrames() const {
    // Once the newest frame of a call is held back, the next call hands it out
    // again from the slot just before its own new frames.
    return frameCount - ((keepEdgeFrames && !firstCall) ? 1 : 0);
}

xt::xarray<float> PreProcessor::process(const xt::xtensor<float, 2>& input, bool eof) {
    const FrameRange range = analyse(input, eof);
    if (!range.ok) {
        return {};
    }
    return packFrames(range.first, range.last);
}

void PreProcessor::restart() {
    spectrogram.fill(0.0F);
    edgeFrames = 0;
    firstCall = true;
}

PreProcessor::FrameRange PreProcessor::analyse(const xt::xtensor<float, 2>& input, bool eof) {
    return analyseRows(input.data(), input.shape()[0], input.shape()[1], input.shape()[1], eof);
}

PreProcessor::FrameRange PreProcessor::analyse(const xt::xarray<float>& source, std::uint64_t firstColumn, bool eof) {
    if (source.dimension() != 2 || firstColumn > source.shape()[1]) {
        throw std::invalid_argument("PreProcessor::process: cannot read from column " + std::to_string(firstColumn) +
                                    " of an input of shape " + shapeText(source));
    }
    const std::uint64_t length = source.shape()[1];
    return analyseRows(source.data() + firstColumn, source.shape()[0], length, length - firstColumn, eof);
}

PreProcessor::FrameRange PreProcessor::analyseRows(const float* first, std::uint64_t rows, std::uint64_t rowStride,
                                                   std::uint64_t length, bool eof) {
    if (rows != channelCount) {
        throw std::invalid_argument("PreProcessor::process: input has " + std::to_string(rows) +
                                    " channels, expected " + std::to_string(channelCount));
    }
    if (length < fftSize) {
        throw std::invalid_argument("PreProcessor::process: input of " + std::to_string(length) +
                                    " samples is shorter than one frame of " + std::to_string(fftSize));
    }
    const std::uint64_t newFrames = (length - fftSize) / hopSize + 1;
    if (newFrames > maxNewFrames()) {
        throw std::invalid_argument("PreProcessor::process: input of " + std::to_string(length) + " samples gives " +
                                    std::to_string(newFrames) + " frames, more than the " +
                                    std::to_string(maxNewFrames()) + " the spectrogram can take");
    }
    TW_LOG(debug, "PreProcessor::process") << "Process signal: " << length;

    shiftSpectrogram(newFrames);
    writeNewFrames(first, rowStride, length, newFrames);

    std::vector<float*> outputs(outputCount);
    for (std::uint64_t s = 0; s < outputCount; ++s) {
        outputs[s] = modelOutputs.data() + s * spectrogram.size();
    }
    const std::array<std::int64_t, 4> shape{1, static_cast<std::int64_t>(spectrogram.shape()[0]),
                                            static_cast<std::int64_t>(spectrogram.shape()[1]),
                                            static_cast<std::int64_t>(spectrogram.shape()[2])};
    if (!inference->run(spectrogram.data(), std::move(outputs), shape)) {
        TW_LOG(error, "PreProcessor::process") << "Inference failed" << std::endl;
        return {};
    }

    FrameRange range;
    range.ok = true;
    range.first = frameCount - newFrames;
    range.last = frameCount;
    if (keepEdgeFrames) {
        edgeFrames = 2;
        if (!eof) {
            // The newest frame still lacks its right neighbour; it is handed
            // out again, completed, by the next call.
            --range.last;
        }
        if (firstCall) {
            firstCall = false;
        } else {
            --range.first;
        }
    }
    TW_LOG(debug, "PreProcessor::process") << "Process signal finished";
    packFramesInto(range.last, frameCount, heldBackSpectrum);
    return range;
}

void PreProcessor::shiftSpectrogram(std::uint64_t newFrames) {
    if (newFrames == 0) {
        return;
    }
    const std::uint64_t bins = spectrogram.shape()[2];
    const std::uint64_t planes = spectrogram.shape()[0];
    const std::uint64_t kept = newFrames >= frameCount ? 0 : frameCount - newFrames;
    for (std::uint64_t p = 0; p < planes; ++p) {
        float* plane = spectrogram.data() + p * frameCount * bins;
        if (kept != 0) {
            std::memmove(plane, plane + newFrames * bins, kept * bins * sizeof(float));
        }
        std::fill(plane + kept * bins, plane + frameCount * bins, 0.0F);
    }
}

void PreProcessor::writeNewFrames(const float* first, std::uint64_t rowStride, std::uint64_t length,
                                  std::uint64_t newFrames) {
    const std::uint64_t bins = fftSize / 2;
    const float* win = window.data();
    // Frames are anchored at the end of the input so that the newest frame
    // ends exactly with the newest sample.
    std::uint64_t end = length;
    std::uint64_t slot = frameCount - 1;
    for (std::uint64_t f = 0; f < newFrames; ++f, end -= hopSize, --slot) {
        for (std::uint64_t c = 0; c < channelCount; ++c) {
            const float* src = first + c * rowStride + (end - fftSize);
            float* row = frameScratch.data();
            for (std::uint64_t i = 0; i < fftSize; ++i) {
                row[i] = src[i] * win[i];
            }
            // Transformed in place: this runs for every new frame, so
            // nothing is allocated or copied here.
            fft.transformAlignedRow(row, fftWork.data(), true);
            float* re = spectrogram.data() + ((2 * c) * frameCount + slot) * bins;
            float* im = spectrogram.data() + ((2 * c + 1) * frameCount + slot) * bins;
            for (std::uint64_t k = 0; k < bins; ++k) {
                re[k] = row[2 * k];
                im[k] = row[2 * k + 1];
            }
        }
    }
}

const float* PreProcessor::outputPlane(std::uint64_t output, std::uint64_t plane, std::uint64_t slot) const {
    const std::uint64_t bins = fftSize / 2;
    const std::uint64_t planeSize = frameCount * bins;
    return modelOutputs.data() + (output * 2 * channelCount + plane) * planeSize + slot * bins;
}

void PreProcessor::packInto(std::uint64_t output, std::uint64_t channel, std::uint64_t slot, float* dst) const {
    const std::uint64_t bins = fftSize / 2;
    const float* re = outputPlane(output, 2 * channel, slot);
    const float* im = outputPlane(output, 2 * channel + 1, slot);
    for (std::uint64_t k = 0; k < bins; ++k) {
        dst[2 * k] = re[k];
        dst[2 * k + 1] = im[k];
    }
}

bool PreProcessor::frameSilent(std::uint64_t output, std::uint64_t slot) const {
    for (std::uint64_t plane = 0; plane < 2 * channelCount; ++plane) {
        if (!allZeros(outputPlane(output, plane, slot), fftSize / 2)) {
            return false;
        }
    }
    return true;
}

void PreProcessor::packFrame(std::uint64_t output, std::uint64_t slot, xt::xtensor<float, 2>& frame) const {
    if (output >= outputCount || slot >= frameCount || frame.shape()[0] != channelCount ||
        frame.shape()[1] != fftSize) {
        throw std::invalid_argument("PreProcessor::packFrame: no frame " + std::to_string(slot) + " of output " +
                                    std::to_string(output) + " fits the given array");
    }
    packFrameInto(output, slot, frame.data());
}

void PreProcessor::packFrameInto(std::uint64_t output, std::uint64_t slot, float* frame) const {
    for (std::uint64_t c = 0; c < channelCount; ++c) {
        packInto(output, c, slot, frame + c * fftSize);
    }
}

xt::xarray<float> PreProcessor::packFrames(std::uint64_t firstSlot, std::uint64_t lastSlot) const {
    xt::xarray<float> packed;
    packFramesInto(firstSlot, lastSlot, packed);
    return packed;
}

void PreProcessor::packFramesInto(std::uint64_t firstSlot, std::uint64_t lastSlot, xt::xarray<float>& packed) const {
    const std::uint64_t frames = lastSlot - firstSlot;
    packed.resize({outputCount, channelCount, frames * fftSize});
    float* dst = packed.data();
    for (std::uint64_t s = 0; s < outputCount; ++s) {
        for (std::uint64_t c = 0; c < channelCount; ++c) {
            for (std::uint64_t t = firstSlot; t < lastSlot; ++t, dst += fftSize) {
                packInto(s, c, t, dst);
            }
        }
    }
}

}  // namespace tonwerk
