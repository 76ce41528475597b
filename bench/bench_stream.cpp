// Streaming throughput through the public interface, as multiples of real
// time at 44100 Hz ("x_realtime" counter), for several host block sizes and
// models. Models come from the build's models/ folder.
#include "tonwerk/tonwerk_proc_multistem.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr double kRate = 44100.0;
constexpr std::size_t kSeconds = 60;

std::shared_ptr<tonwerk::InferenceContext> loadContext(const std::string& name) {
    static std::vector<unsigned char> bytes;
    std::ifstream file(std::string(TONWERK_MODELS_DIR) + "/" + name, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{bytes.data(), bytes.size(), ""});
}

std::vector<float> testSignal(std::size_t frames) {
    std::vector<float> interleaved(2 * frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / kRate;
        interleaved[2 * i] = static_cast<float>(0.3 * std::sin(2 * M_PI * 220.0 * t) + 0.1 * std::sin(2 * M_PI * 3100.0 * t));
        interleaved[2 * i + 1] = static_cast<float>(0.3 * std::sin(2 * M_PI * 330.0 * t));
    }
    return interleaved;
}

void streamThrough(benchmark::State& state, const std::string& model) {
    const std::size_t block = static_cast<std::size_t>(state.range(0));
    const std::size_t frames = kSeconds * static_cast<std::size_t>(kRate);
    const std::vector<float> signal = testSignal(frames);
    auto context = loadContext(model);
    tonwerk::TonwerkProcConfig config{};
    config.vocals = config.drum = config.piano = config.acousticGuitar = config.electricGuitar = config.bass = 1;
    config.channels = 2;
    config.interleaved = true;
    std::size_t produced = 0;
    for (auto _ : state) {
        tonwerk::TonwerkProc proc(context, config);
        std::vector<float> chunk;
        for (std::size_t at = 0; at < frames; at += block) {
            const std::size_t n = std::min(block, frames - at);
            chunk.assign(signal.begin() + 2 * at, signal.begin() + 2 * (at + n));
            auto stems = proc.process(chunk, at + n == frames);
            if (!stems.empty()) produced += stems[0].size() / 2;
        }
    }
    benchmark::DoNotOptimize(produced);
    state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(kSeconds) * state.iterations(),
                                                      benchmark::Counter::kIsRate);
}

void BM_IdentityModel(benchmark::State& state) { streamThrough(state, "identity.onnx"); }
void BM_BaselineModel(benchmark::State& state) { streamThrough(state, "tonwerk-dsp-baseline.onnx"); }

BENCHMARK(BM_IdentityModel)->Arg(512)->Arg(4096)->Arg(254976)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_BaselineModel)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
