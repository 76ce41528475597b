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
#include <vector>

namespace tonwerk {

// One stream per object; single-threaded.
class ChunkProcessor {
public:
    ChunkProcessor(std::shared_ptr<IInference> inference, std::size_t channels, std::size_t fftSize, std::size_t hop,
                   std::uint64_t configExtra, std::size_t segmentFrames, std::size_t stemCount);

    // `input` is {channels, n}. Returns {stemCount + 1, channels, m} (the
    // stems, then the aligned mixture) or a dimensionless array when not
    // enough input has gathered.
    xt::xarray<float> process(xt::xarray<float> input, bool eof);

    const PreProcessor& preProcessor() const { return *preProcessor_; }
    std::size_t transformLength() const { return fftSize; }

private:
    std::size_t channels;
    std::size_t fftSize;
    std::size_t hop;
    std::uint64_t configExtra;
    std::size_t segmentFrames;
    std::size_t stemCount;
    std::unique_ptr<PreProcessor> preProcessor_;
    std::vector<std::unique_ptr<OverlapAddSynthesizer>> synthesizers;
    std::unique_ptr<BufferAggregator> buffer;
    bool firstChunk = true;
    bool firstResult = true;
};

}  // namespace tonwerk
