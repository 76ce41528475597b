#include "api/tonwerk_proc_impl.h"

#include "api/inference_context_impl.h"
#include "pipeline/stem_outputs.h"
#include "pipeline/stream_layout.h"
#include "common/logging.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace tonwerk {
namespace {

using layout::kAudioChannels;
using layout::kStemCount;

// The backend's flags list bass third; the configuration has it last.
StemFlags stemFlagsOf(const TonwerkProcConfig& config) {
    StemFlags flags;
    flags.vocals = config.vocals != 0;
    flags.drum = config.drum != 0;
    flags.bass = config.bass != 0;
    flags.piano = config.piano != 0;
    flags.acousticGuitar = config.acousticGuitar != 0;
    flags.electricGuitar = config.electricGuitar != 0;
    return flags;
}

// Rejects layouts under which the conversion to two rows would read past
// the input or divide by zero; nothing has been touched when it throws.
void checkInputLayout(std::size_t floats, std::uint64_t channels, bool interleaved) {
    if (channels == 0) {
        throw std::invalid_argument("TonwerkProc::process: channels is 0, cannot split the input into frames");
    }
    if (interleaved && channels == 1) {
        throw std::invalid_argument(
            "TonwerkProc::process: interleaved input needs at least 2 channels, got 1 (input is read as stereo pairs)");
    }
    if (!interleaved && floats % 2 != 0) {
        throw std::invalid_argument("TonwerkProc::process: planar input must hold two channels of equal length, got " +
                                    std::to_string(floats) + " floats");
    }
}

}  // namespace

TonwerkProcImpl::TonwerkProcImpl(std::shared_ptr<InferenceContext>&& context, TonwerkProcConfig config)
    : context(std::move(context)) {
    if (!this->context || this->context->impl == nullptr) {
        TW_LOG(error, "tonwerk::TonwerkProcImpl::TonwerkProcImpl") << "Inference context is not provided";
        throw std::runtime_error("Inference context is not provided");
    }
    backend = this->context->impl->backend;
    if (!backend) {
        TW_LOG(error, "tonwerk::TonwerkProcImpl::TonwerkProcImpl") << "Inference is not initalized!";
        throw std::runtime_error("Inference for specified model is not initialized");
    }
    const StemFlags flags = stemFlagsOf(config);
    TW_LOG(info, "tonwerk::TonwerkProcImpl::TonwerkProcImpl")
        << "Selected stems: vocals=" << flags.vocals << ", drum=" << flags.drum << ", bass=" << flags.bass
        << ", piano=" << flags.piano << ", acousticGuitar=" << flags.acousticGuitar
        << ", electricGuitar=" << flags.electricGuitar;
    setSelectedStems(backend, flags);
    interleaved = config.interleaved;
    channels = static_cast<std::uint64_t>(static_cast<std::int64_t>(config.channels));
    spareFlag = config.spareFlag;
    chunkEngine = std::make_unique<ChunkProcessor>(backend, kAudioChannels, layout::kFftSize, layout::kHop,
                                                   config.configExtra, layout::kSegmentFrames, kStemCount);
}

TonwerkProcImpl::~TonwerkProcImpl() {
    try {
        chunkEngine.reset();
        backend.reset();
    } catch (const std::exception& e) {
        TW_LOG(error, "tonwerk::TonwerkProcImpl::~TonwerkProcImpl") << "Exception in destructor: " << e.what();
    } catch (...) {
        TW_LOG(error, "tonwerk::TonwerkProcImpl::~TonwerkProcImpl") << "Unknown exception in destructor";
    }
}

std::vector<std::vector<float>> TonwerkProcImpl::process(const std::vector<float>& input, bool eof) {
    if (!chunkEngine || !backend) {
        throw std::runtime_error("Processor is not prepared");
    }
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process")
        << "called with data size: " << input.size() << ", eof=" << eof << ", channels=" << channels;
    checkInputLayout(input.size(), channels, interleaved);
    const std::size_t frames = input.size() / channels;
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processing chunk: input size " << frames << ", eof=" << eof;

    // Read as two rows straight from the host's block: interleaved pairs
    // (stride 2 whatever `channels` says), or all of channel 0 then all of
    // channel 1.
    const std::size_t half = input.size() / 2;
    const xt::xarray<float>& result = interleaved
                                          ? chunkEngine->process(input.data(), frames, 1, kAudioChannels, eof)
                                          : chunkEngine->process(input.data(), half, half, 1, eof);
    if (result.dimension() != 3) {
        return {};
    }
    return buildStems(result);
}

std::vector<std::vector<float>> TonwerkProcImpl::buildStems(const xt::xarray<float>& result) const {
    std::vector<std::vector<float>> stems = buildStemOutputs(result, interleaved);
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processed stems: " << kStemCount;
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processed residual stem";
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processed mix stem";
    return stems;
}

}  // namespace tonwerk
