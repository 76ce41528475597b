#include "pipeline/chunk_processor.h"

#include "common/logging.h"
#include "common/shape_text.h"
#include "pipeline/stream_padding.h"
#include "spectral/frame_checks.h"
#include "spectral/window.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace tonwerk {
namespace {

// Samples to add after `length` so that it becomes a whole number of hops.
std::size_t padToHop(std::size_t length, std::size_t hop) {
    const std::size_t rest = length % hop;
    return rest == 0 ? 0 : hop - rest;
}

float peakMagnitude(const xt::xarray<float>& data) {
    float peak = 0.0F;
    for (const float v : data) {
        peak = std::max(peak, std::fabs(v));
    }
    return peak;
}

// Joins {rows, channels, n_i} results along time; parts without samples'
// axes (nothing produced) are skipped.
xt::xarray<float> concatenateAlongTime(std::vector<xt::xarray<float>>& parts) {
    std::vector<xt::xarray<float>*> present;
    std::size_t total = 0;
    for (auto& part : parts) {
        if (part.dimension() == 3) {
            present.push_back(&part);
            total += part.shape()[2];
        }
    }
    if (present.empty()) {
        return {};
    }
    if (present.size() == 1) {
        return std::move(*present.front());
    }
    const std::size_t rows = present.front()->shape()[0] * present.front()->shape()[1];
    xt::xarray<float> out =
        xt::xarray<float>::from_shape({present.front()->shape()[0], present.front()->shape()[1], total});
    std::size_t offset = 0;
    for (const auto* part : present) {
        const std::size_t width = part->shape()[2];
        for (std::size_t r = 0; r < rows; ++r) {
            const float* src = part->data() + r * width;
            std::copy(src, src + width, out.data() + r * total + offset);
        }
        offset += width;
    }
    return out;
}

}  // namespace

ChunkProcessor::ChunkProcessor(std::shared_ptr<IInference> inference, std::size_t channels, std::size_t fftSize,
                               std::size_t hop, std::uint64_t configExtra, std::size_t segmentFrames,
                               std::size_t stemCount)
    : channels(channels),
      fftSize(fftSize),
      hop(hop),
      configExtra(configExtra),
      segmentFrames(segmentFrames),
      stemCount(stemCount) {
    requireNonZeroHop(hop, "ChunkProcessor");
    // Kept: results are sized in steps of hop but a frame fills only
    // min(hop, fftSize) samples, so a longer hop would leave unwritten gaps.
    if (hop > fftSize) {
        throw std::invalid_argument("ChunkProcessor: hop " + std::to_string(hop) +
                                    " must be between 1 and the FFT size " + std::to_string(fftSize));
    }
    const std::vector<float> window = makeWindow(Blackman, static_cast<std::int32_t>(fftSize));
    preProcessor_ = std::make_unique<PreProcessor>(channels, fftSize, hop, window, std::move(inference),
                                                   segmentFrames, true, stemCount);
    synthesizers.reserve(stemCount);
    for (std::size_t s = 0; s < stemCount; ++s) {
        synthesizers.push_back(std::make_unique<OverlapAddSynthesizer>(channels, fftSize, hop, window));
    }
    buffer = std::make_unique<BufferAggregator>(channels, 2 * readyThreshold(), 1);
}

std::size_t ChunkProcessor::readyThreshold() const {
    return preProcessor_->maxInputLength() - 2 * fftSize;
}

const xt::xarray<float>& ChunkProcessor::process(const xt::xarray<float>& input, bool eof) {
    TW_LOG(debug, "ChunkProcessor::process")
        << "ChunkProcessor::process input shape: " << shapeText(input) << ", eof: " << eof;
    buffer->push(input);
    return afterPush(eof);
}

const xt::xarray<float>& ChunkProcessor::process(const float* input, std::size_t frames, std::size_t channelStride,
                                                 std::size_t sampleStride, bool eof) {
    TW_LOG(debug, "ChunkProcessor::process")
        << "ChunkProcessor::process input shape: " << channels << "x" << frames << ", eof: " << eof;
    buffer->pushFrames(input, frames, channelStride, sampleStride);
    return afterPush(eof);
}

const xt::xarray<float>& ChunkProcessor::afterPush(bool eof) {
    if (eof) {
        return processEndOfStream();
    }
    const std::size_t held = buffer->heldLength();
    if (held == 0 || held < readyThreshold()) {
        TW_LOG(debug, "ChunkProcessor::process") << "Not enough data to process, returning empty";
        return noResult;
    }
    return separate(takeChunk(), 0, false);
}

const xt::xarray<float>& ChunkProcessor::takeChunk() {
    const std::size_t chunkLength = preProcessor_->maxInputLength() - (firstChunk ? fftSize : 0);
    std::size_t requested = std::min(buffer->heldLength(), chunkLength);
    // Frames are laid from the end of each chunk backwards, so samples beyond
    // a whole number of hops at its front would fall into no frame: the
    // stems would come back shorter than what the chunk consumes and slip
    // against the mixture at every chunk border. Taking whole hops only keeps
    // the frame grid continuous; the rest waits for the next chunk. The ready
    // threshold is itself whole hops, so a ready buffer still yields at least
    // that much.
    requested -= requested % hop;
    if (!buffer->getInto(requested, fftSize, chunk)) {
        chunk = xt::xarray<float>();
    }
    return chunk;
}

const xt::xarray<float>& ChunkProcessor::processEndOfStream() {
    TW_LOG(debug, "ChunkProcessor::process") << "Processing EOF";
    // Everything still buffered goes through a single model run when it
    // fits. A longer remainder (the stream handed over in one large call, or
    // blocks far larger than maxInputSize) would bring more new frames than
    // the model's spectrogram holds, so ordinary chunks are separated first
    // until the rest fits; the call returns all of it in stream order.
    if (flushFitsOneRun(buffer->heldLength())) {
        return flushStream();
    }
    // Each run overwrites `result`, so the parts are copied out first.
    std::vector<xt::xarray<float>> parts;
    while (!flushFitsOneRun(buffer->heldLength())) {
        parts.push_back(separate(takeChunk(), 0, false));
    }
    parts.push_back(flushStream());
    result = concatenateAlongTime(parts);
    return result;
}

bool ChunkProcessor::flushFitsOneRun(std::size_t held) const {
    if (held == 0) {
        return true;
    }
    std::size_t modelInput = held + padToHop(held, hop) + fftSize;
    if (firstChunk) {
        modelInput += std::min(modelInput - 1, fftSize);
    }
    if (!firstResult) {
        modelInput -= hop;
    }
    const std::size_t newFrames = (modelInput - fftSize) / hop + 1;
    return newFrames <= preProcessor_->maxNewFrames();
}

const xt::xarray<float>& ChunkProcessor::flushStream() {
    xt::xarray<float> data = buffer->flush();
    const std::size_t length = data.dimension() == 2 ? data.shape()[1] : 0;
    if (length == 0) {
        // The stream ended with nothing left to separate: no result, as if
        // not enough data had arrived.
        return noResult;
    }
    const std::size_t eofPad = padToHop(length, hop);
    const std::size_t total = fftSize + eofPad;
    // Mirroring cannot reach further back than the signal is long; the rest
    // of the padding is silence.
    const std::size_t reflectCount = std::min(length - 1, total);
    const std::size_t zeroCount = total - reflectCount;
    return separate(padEnd(data, reflectCount, zeroCount), eofPad, true);
}

const xt::xarray<float>& ChunkProcessor::separate(const xt::xarray<float>& unpadded, std::size_t eofPad,
                                                  bool eof) {
    if (!firstChunk) {
        return separatePadded(unpadded, 0, eofPad, eof);
    }
    // Only the stream's first chunk is padded at the front, once per stream.
    const std::size_t length = unpadded.shape()[1];
    const std::size_t frontPad = length == 0 ? 0 : std::min(length - 1, fftSize);
    const xt::xarray<float> padded = padFront(unpadded, frontPad);
    firstChunk = false;
    if (log::enabled(log::Severity::info)) {
        const float peak = peakMagnitude(padded);
        if (peak > 1.1F) {
            TW_LOG(info, "ChunkProcessor::process") << "MAX2: " << peak;
        }
    }
    return separatePadded(padded, frontPad, eofPad, eof);
}

const xt::xarray<float>& ChunkProcessor::separatePadded(const xt::xarray<float>& data, std::size_t frontPad,
                                                        std::size_t eofPad, bool eof) {
    TW_LOG(debug, "ChunkProcessor::process") << "Data prepared for preprocessing, shape: " << shapeText(data);

    // After the first chunk, the frame starting at the chunk's first sample
    // was analysed with the previous chunk and is held back by the
    // pre-processor, which hands it out first this time.
    const std::size_t skip = firstResult ? 0 : std::min(hop, data.shape()[1]);
    // The frames are read straight from the model's output buffers, one at
    // a time, rather than as one array of every stem's spectra.
    const PreProcessor::FrameRange frames = preProcessor_->analyse(data, skip, eof);
    TW_LOG(debug, "ChunkProcessor::process") << "Preprocessed data shape: " << framesShape(frames);

    assemble(frames, data, frontPad, eofPad, eof);
    TW_LOG(debug, "ChunkProcessor::process") << "ChunkProcessor::process result shape: " << shapeText(result);
    return result;
}

std::string ChunkProcessor::framesShape(const PreProcessor::FrameRange& frames) const {
    // A failed model run yields no frames, as a dimensionless array would.
    if (!frames.ok) {
        return "";
    }
    std::ostringstream text;
    text << stemCount << "x" << channels << "x" << frames.count() * fftSize;
    return text.str();
}

std::size_t ChunkProcessor::resultLength(std::size_t produced, std::size_t lead, std::size_t eofPad,
                                         bool eof) const {
    const std::size_t kept = produced - lead;
    if (!eof) {
        return kept;
    }
    // The end padding comes off again. The synthesizers' unfinished overlap is
    // represented by silence of its length; its values are not used.
    const auto extended = static_cast<std::int64_t>(kept + synthesizers.front()->tail().shape()[1]);
    std::int64_t end = extended - static_cast<std::int64_t>(fftSize + eofPad);
    if (end < 0) {
        end += extended;
    }
    end = std::min(end, extended);
    return end < 1 ? 0 : static_cast<std::size_t>(end);
}

void ChunkProcessor::assemble(const PreProcessor::FrameRange& frames, const xt::xarray<float>& data,
                              std::size_t frontPad, std::size_t eofPad, bool eof) {
    const std::size_t frameCount = frames.count();
    const std::size_t produced = frameCount * hop;
    // The reflected lead-in of the stream's first chunk is cut from every row.
    const std::size_t lead = firstResult ? std::min(frontPad, produced) : 0;
    firstResult = false;
    const std::size_t length = resultLength(produced, lead, eofPad, eof);
    const std::size_t stemEnd = std::min(length, produced - lead);

    // Same element count as the previous chunk (the usual case): no new storage.
    result.resize({stemCount + 1, channels, length});
    const std::size_t dataLength = data.shape()[1];
    const std::size_t mixEnd = std::min(length, std::min(produced, dataLength) - std::min(lead, dataLength));
    zeroFrom(stemCount, stemEnd, mixEnd);

    // Every frame goes through its stem's synthesizer, even where the
    // samples are cut, so that the overlap carries on into the next chunk.
    std::size_t pos = 0;
    for (std::size_t f = 0; f < frameCount; ++f) {
        std::size_t written = 0;
        for (std::size_t s = 0; s < stemCount; ++s) {
            OverlapAddSynthesizer& synthesizer = *synthesizers[s];
            const bool silent = preProcessor_->frameSilent(s, frames.first + f);
            if (!silent) {
                preProcessor_->packFrameInto(s, frames.first + f, synthesizer.stagedFrame());
            }
            written = synthesizeInto(synthesizer, silent, pos, lead, stemEnd, result.data() + s * channels * length,
                                     length);
        }
        pos += written;
    }

    // The mixture row lines up with the stems: it starts at the chunk's
    // first sample, after the same lead-in cut.
    float* mixture = result.data() + stemCount * channels * length;
    for (std::size_t c = 0; c < channels; ++c) {
        const float* src = data.data() + c * dataLength + lead;
        std::copy(src, src + mixEnd, mixture + c * length);
    }
}

void ChunkProcessor::zeroFrom(std::size_t stemRows, std::size_t stemEnd, std::size_t mixEnd) {
    // Only what neither a synthesizer nor the mixture fills: the silence that
    // stands in for the unfinished overlap at the end of the stream.
    const std::size_t length = result.shape()[2];
    for (std::size_t row = 0; row < result.shape()[0] * channels; ++row) {
        const std::size_t from = row < stemRows * channels ? stemEnd : mixEnd;
        std::fill(result.data() + row * length + from, result.data() + (row + 1) * length, 0.0F);
    }
}

std::size_t ChunkProcessor::synthesizeInto(OverlapAddSynthesizer& synthesizer, bool silent, std::size_t pos,
                                           std::size_t lead,
                                           std::size_t stemEnd, float* stemRows, std::size_t rowLength) {
    // Of the samples this frame completes, [pos, pos + hop) untrimmed, only
    // those at [lead, lead + stemEnd) are kept; they land at their place
    // after the lead-in cut.
    const std::size_t begin = std::max(pos, lead);
    const std::size_t end = std::max(begin, std::min(pos + hop, lead + stemEnd));
    float* target = begin < end ? stemRows + (begin - lead) : stemRows;
    return synthesizer.processStagedFrame(silent, target, rowLength, begin - pos, end - pos);
}

}  // namespace tonwerk
