#include "measurements.h"

#include "pipeline/stream_layout.h"
#include "inference/inference.h"
#include "pipeline/chunk_processor.h"
#include "spectral/aligned_floats.h"
#include "spectral/window.h"

#include <pffft.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tonwerk::bench {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TonwerkProcConfig configFor(Stems stems) {
    TonwerkProcConfig config{};
    config.vocals = 1;
    if (stems == Stems::all) {
        config.drum = config.piano = config.acousticGuitar = config.electricGuitar = config.bass = 1;
    }
    config.channels = 2;
    config.interleaved = true;
    return config;
}

// A model that only counts its runs; its outputs are silence.
class CountingModel final : public IInference {
public:
    bool run(float*, std::vector<float*> outputs, const std::array<std::int64_t, 4>& shape) override {
        const auto count = static_cast<std::size_t>(shape[0] * shape[1] * shape[2] * shape[3]);
        for (float* output : outputs) std::fill(output, output + count, 0.0F);
        ++runs;
        return true;
    }
    std::size_t runs = 0;
};

constexpr std::array<std::int64_t, 4> kModelShape{1, 2 * layout::kAudioChannels, layout::kSegmentFrames,
                                                  layout::kFftSize / 2};
constexpr std::size_t kModelElements = 2 * layout::kAudioChannels * layout::kSegmentFrames * layout::kFftSize / 2;

}  // namespace

double streamSeconds(const std::shared_ptr<InferenceContext>& context, const BenchSignal& signal, Stems stems) {
    std::vector<float> block;
    std::size_t produced = 0;
    const auto start = Clock::now();
    TonwerkProc proc(context, configFor(stems));
    for (std::size_t at = 0; at < signal.frames(); at += kHostBlock) {
        const std::size_t n = std::min(kHostBlock, signal.frames() - at);
        signal.fill(at, n, block);
        const auto result = proc.process(block, at + n == signal.frames());
        if (!result.empty()) produced += result.front().size() / 2;
    }
    const double seconds = secondsSince(start);
    if (produced != signal.frames()) {
        throw std::runtime_error("the stream gave " + std::to_string(produced) + " frames for " +
                                 std::to_string(signal.frames()));
    }
    return seconds;
}

std::size_t modelRunsOf(const BenchSignal& signal) {
    auto counter = std::make_shared<CountingModel>();
    ChunkProcessor chunks(counter, layout::kAudioChannels, layout::kFftSize, layout::kHop, 0, layout::kSegmentFrames,
                          layout::kStemCount);
    xt::xarray<float> rows;
    for (std::size_t at = 0; at < signal.frames(); at += kHostBlock) {
        const std::size_t n = std::min(kHostBlock, signal.frames() - at);
        rows.resize({layout::kAudioChannels, n});
        for (std::size_t c = 0; c < layout::kAudioChannels; ++c) signal.fillRow(c, at, n, rows.data() + c * n);
        chunks.process(rows, at + n == signal.frames());
    }
    return counter->runs;
}

std::size_t framesOf(const BenchSignal& signal) {
    return (signal.frames() + layout::kFftSize + layout::kHop - 1) / layout::kHop;
}

double fftFloorSeconds(const BenchSignal& signal, std::size_t frames) {
    constexpr std::size_t n = layout::kFftSize;
    constexpr std::size_t channels = layout::kAudioChannels;
    constexpr std::size_t spectra = channels * layout::kStemCount;
    PFFFT_Setup* setup = pffft_new_setup(static_cast<int>(n), PFFFT_REAL);
    AlignedFloats audio(channels * n);
    AlignedFloats spectrum(spectra * n);
    AlignedFloats out(n);
    AlignedFloats work(n);
    for (std::size_t c = 0; c < channels; ++c) signal.fillRow(c, 0, n, audio.data() + c * n);
    for (std::size_t k = 0; k < spectra; ++k) {
        pffft_transform_ordered(setup, audio.data() + (k % channels) * n, spectrum.data() + k * n, work.data(),
                                PFFFT_FORWARD);
    }
    const auto start = Clock::now();
    for (std::size_t f = 0; f < frames; ++f) {
        for (std::size_t c = 0; c < channels; ++c) {
            pffft_transform_ordered(setup, audio.data() + c * n, out.data(), work.data(), PFFFT_FORWARD);
        }
        for (std::size_t k = 0; k < spectra; ++k) {
            pffft_transform_ordered(setup, spectrum.data() + k * n, out.data(), work.data(), PFFFT_BACKWARD);
        }
    }
    const double seconds = secondsSince(start);
    pffft_destroy_setup(setup);
    return seconds;
}

struct ModelOnly::Buffers {
    std::shared_ptr<IInference> backend;
    std::vector<float> input = std::vector<float>(kModelElements);
    std::vector<std::vector<float>> outputs =
        std::vector<std::vector<float>>(layout::kStemCount, std::vector<float>(kModelElements));
};

ModelOnly::ModelOnly(const std::vector<unsigned char>& modelBytes, const BenchSignal& signal)
    : buffers(std::make_unique<Buffers>()) {
    buffers->backend = makeInferenceBackend(modelBytes.data(), modelBytes.size(), {}, layout::stemOutputNames(), "");
    setSelectedStems(buffers->backend, StemFlags{true, true, true, true, true, true});
    // The spectrogram as the stream lays it out: real and imaginary planes
    // per channel, one windowed frame per hop.
    constexpr std::size_t n = layout::kFftSize;
    constexpr std::size_t bins = n / 2;
    constexpr std::size_t frames = layout::kSegmentFrames;
    const std::vector<float> window = makeWindow(Blackman, static_cast<std::int32_t>(n));
    PFFFT_Setup* setup = pffft_new_setup(static_cast<int>(n), PFFFT_REAL);
    AlignedFloats frame(n);
    AlignedFloats spectrum(n);
    for (std::size_t c = 0; c < layout::kAudioChannels; ++c) {
        for (std::size_t f = 0; f < frames; ++f) {
            signal.fillRow(c, f * layout::kHop, n, frame.data());
            for (std::size_t i = 0; i < n; ++i) frame.data()[i] *= window[i];
            pffft_transform_ordered(setup, frame.data(), spectrum.data(), nullptr, PFFFT_FORWARD);
            float* re = buffers->input.data() + ((2 * c) * frames + f) * bins;
            float* im = buffers->input.data() + ((2 * c + 1) * frames + f) * bins;
            for (std::size_t k = 0; k < bins; ++k) {
                re[k] = spectrum.data()[2 * k];
                im[k] = spectrum.data()[2 * k + 1];
            }
        }
    }
    pffft_destroy_setup(setup);
}

ModelOnly::~ModelOnly() = default;

double ModelOnly::seconds(std::size_t runs) {
    std::vector<float*> outputs;
    for (auto& output : buffers->outputs) outputs.push_back(output.data());
    const auto start = Clock::now();
    for (std::size_t r = 0; r < runs; ++r) buffers->backend->run(buffers->input.data(), outputs, kModelShape);
    return secondsSince(start);
}

}  // namespace tonwerk::bench
