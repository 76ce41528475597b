#include "api/tonwerk_proc_impl.h"

#include "api/inference_context_impl.h"
#include "common/logging.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace tonwerk {
namespace {

constexpr std::size_t kFftSize = 4096;
constexpr std::size_t kHop = 1024;
constexpr std::size_t kSegmentFrames = 256;
constexpr std::size_t kStemCount = 6;
// The processor works on stereo whatever `channels` says: that field only
// tells how many floats of the input make one frame.
constexpr std::size_t kAudioChannels = 2;

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

// Two rows of `frames` samples: interleaved pairs are split (stride 2 in
// every case), planar input is channel 0 then channel 1.
xt::xarray<float> toTwoRows(const std::vector<float>& input, std::size_t frames, bool interleaved) {
    if (!interleaved) {
        const std::size_t half = input.size() / 2;
        xt::xarray<float> rows = xt::xarray<float>::from_shape({kAudioChannels, half});
        std::copy(input.begin(), input.end(), rows.data());
        return rows;
    }
    xt::xarray<float> rows = xt::xarray<float>::from_shape({kAudioChannels, frames});
    float* left = rows.data();
    float* right = rows.data() + frames;
    for (std::size_t i = 0; i < frames; ++i) {
        left[i] = input[2 * i];
        right[i] = input[2 * i + 1];
    }
    return rows;
}

// One output vector from two rows of `length` samples at `rows`. The vector
// is filled as it is built: value-initialising it first would be a second
// pass over several MB per chunk.
std::vector<float> toOutput(const float* rows, std::size_t length, bool interleaved) {
    if (!interleaved) {
        return std::vector<float>(rows, rows + 2 * length);
    }
    std::vector<float> out;
    out.reserve(2 * length);
    const float* left = rows;
    const float* right = rows + length;
    for (std::size_t k = 0; k < length; ++k) {
        out.push_back(left[k]);
        out.push_back(right[k]);
    }
    return out;
}

// Index into two rows of `length` samples of output position `p`.
std::size_t rowIndexOf(std::size_t p, std::size_t length, bool interleaved) {
    return interleaved ? (p % 2) * length + p / 2 : p;
}

// The model's own reconstruction at row index `i`: every stem summed in
// stem order, in single precision.
float stemSum(const float* slices, std::size_t sliceSize, std::size_t i) {
    float sum = slices[i];
    for (std::size_t s = 1; s < kStemCount; ++s) {
        sum = sum + slices[s * sliceSize + i];
    }
    return sum;
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
    chunkEngine = std::make_unique<ChunkProcessor>(backend, kAudioChannels, kFftSize, kHop, config.configExtra,
                                                   kSegmentFrames, kStemCount);
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
    xt::xarray<float> rows = toTwoRows(input, frames, interleaved);
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processing chunk: input size " << frames << ", eof=" << eof;

    const xt::xarray<float>& result = chunkEngine->process(rows, eof);
    if (result.dimension() != 3) {
        return {};
    }
    return buildStems(result);
}

std::vector<std::vector<float>> TonwerkProcImpl::buildStems(const xt::xarray<float>& result) const {
    const std::size_t length = result.shape()[2];
    const std::size_t sliceSize = result.shape()[1] * length;
    const float* slices = result.data();

    std::vector<std::vector<float>> stems;
    stems.reserve(kStemCount + 2);
    for (std::size_t s = 0; s < kStemCount; ++s) {
        stems.push_back(toOutput(slices + s * sliceSize, length, interleaved));
    }
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processed stems: " << stems.size();

    // The residual is what the mix misses of the mixture. Both are built in
    // output order so that they are filled as they grow (see toOutput).
    std::vector<float> mix;
    std::vector<float> residual;
    mix.reserve(sliceSize);
    residual.reserve(sliceSize);
    const float* mixture = slices + kStemCount * sliceSize;
    for (std::size_t p = 0; p < sliceSize; ++p) {
        const std::size_t i = rowIndexOf(p, length, interleaved);
        const float sum = stemSum(slices, sliceSize, i);
        mix.push_back(sum);
        residual.push_back(mixture[i] - sum);
    }
    stems.push_back(std::move(residual));
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processed residual stem";
    stems.push_back(std::move(mix));
    TW_LOG(debug, "tonwerk::TonwerkProcImpl::process") << "Processed mix stem";
    return stems;
}

}  // namespace tonwerk
