// Cuts the input stream into model-sized overlapping chunks, has each one
// separated, and reassembles every stem into continuous audio.
#pragma once

#include "inference/inference.h"
#include "pipeline/buffer_aggregator.h"
#include "pipeline/overlap_add_synthesizer.h"
#include "spectral/pre_processor.h"

#include <xtensor/xarray.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tonwerk {

// One stream per object; single-threaded.
class ChunkProcessor {
public:
    ChunkProcessor(std::shared_ptr<IInference> inference, std::size_t channels, std::size_t fftSize, std::size_t hop,
                   std::uint64_t configExtra, std::size_t segmentFrames, std::size_t stemCount);

    // `input` is {channels, n}. Returns {stemCount + 1, channels, m} (the
    // stems, then the aligned mixture) or a dimensionless array when not
    // enough input has gathered. With `eof` everything buffered comes out,
    // through as many model runs as it needs. A block that does not fit the
    // input buffer throws std::runtime_error and changes nothing. The result
    // lives in this processor and is overwritten by the next call: streams
    // produce chunks of the same length again and again, so its storage is
    // reused rather than allocated and faulted in afresh for every chunk.
    const xt::xarray<float>& process(const xt::xarray<float>& input, bool eof);

    // process() on `frames` samples per channel read in the caller's layout
    // (see BufferAggregator::pushFrames), without an intermediate array.
    const xt::xarray<float>& process(const float* input, std::size_t frames, std::size_t channelStride,
                                     std::size_t sampleStride, bool eof);

    const PreProcessor& preProcessor() const { return *preProcessor_; }
    std::size_t transformLength() const { return fftSize; }

private:
    // What follows the push: a chunk when enough is held, the rest at eof.
    const xt::xarray<float>& afterPush(bool eof);
    // Samples that must be buffered before a chunk is separated: the chunk
    // length less the two frames' worth that the stream's padding supplies.
    std::size_t readyThreshold() const;
    // Takes the next chunk out of the buffer into `chunk`, keeping its newest
    // fftSize samples there to open the following chunk.
    const xt::xarray<float>& takeChunk();
    const xt::xarray<float>& processEndOfStream();
    bool flushFitsOneRun(std::size_t held) const;
    const xt::xarray<float>& flushStream();
    // Separates one prepared chunk ({channels, length}, end padding already
    // applied at eof) and lays out its stems and the aligned mixture in
    // `result`.
    const xt::xarray<float>& separate(const xt::xarray<float>& data, std::size_t eofPad, bool eof);
    // separate() once the front padding, if any, is in place.
    const xt::xarray<float>& separatePadded(const xt::xarray<float>& data, std::size_t frontPad,
                                            std::size_t eofPad, bool eof);
    std::string framesShape(const PreProcessor::FrameRange& frames) const;
    std::size_t resultLength(std::size_t produced, std::size_t lead, std::size_t eofPad, bool eof) const;
    void assemble(const PreProcessor::FrameRange& frames, const xt::xarray<float>& data, std::size_t frontPad,
                  std::size_t eofPad, bool eof);
    void zeroFrom(std::size_t stemRows, std::size_t stemEnd, std::size_t mixEnd);
    // Runs the frame staged in a stem's synthesizer through it, writing the
    // part of its output at untrimmed position `pos` that survives the
    // lead-in cut and the end trim straight into the stem's rows. Returns
    // how many samples the frame completed.
    std::size_t synthesizeInto(OverlapAddSynthesizer& synthesizer, bool silent, std::size_t pos, std::size_t lead,
                               std::size_t stemEnd, float* stemRows, std::size_t rowLength);

    std::size_t channels;
    std::size_t fftSize;
    std::size_t hop;
    // Kept as the host gave them; the chunking reads neither.
    [[maybe_unused]] std::uint64_t configExtra;
    [[maybe_unused]] std::size_t segmentFrames;
    std::size_t stemCount;
    std::unique_ptr<PreProcessor> preProcessor_;
    std::vector<std::unique_ptr<OverlapAddSynthesizer>> synthesizers;
    std::unique_ptr<BufferAggregator> buffer;
    bool firstChunk = true;
    bool firstResult = true;
    // The chunk taken out of the buffer and the separated result,
    // {stemCount + 1, channels, m}: a few MB each, so they are kept between
    // chunks instead of being handed back to the system every time.
    xt::xarray<float> chunk;
    xt::xarray<float> result;
    // What a call returns when nothing was separated; never written.
    xt::xarray<float> noResult;
};

}  // namespace tonwerk
