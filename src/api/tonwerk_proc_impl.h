// What a TonwerkProc handle owns: the chunk engine of one stream.
#pragma once

#include "inference/inference.h"
#include "pipeline/chunk_processor.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace tonwerk {

class TonwerkProcImpl {
public:
    TonwerkProcImpl(std::shared_ptr<InferenceContext>&& context, TonwerkProcConfig config);
    ~TonwerkProcImpl();
    TonwerkProcImpl(const TonwerkProcImpl&) = delete;
    TonwerkProcImpl& operator=(const TonwerkProcImpl&) = delete;

    // Throws std::invalid_argument, before any state changes, for a layout
    // that cannot be read as two channels (channels 0, interleaved with
    // channels 1, planar with an odd number of floats).
    std::vector<std::vector<float>> process(const std::vector<float>& input, bool eof);

    std::unique_ptr<ChunkProcessor> chunkEngine;
    bool interleaved = false;
    bool spareFlag = false;
    std::uint64_t channels = 2;
    std::shared_ptr<IInference> backend;
    std::shared_ptr<InferenceContext> context;

private:
    // Six stems, residual and mix from the chunk engine's {7, 2, N} result.
    std::vector<std::vector<float>> buildStems(const xt::xarray<float>& result) const;
};

}  // namespace tonwerk
