// tonwerk-live-bench: what live separation costs and whether it keeps up.
// For each model and `update` it times the engine's model runs and prints
// the worker load (compute time over the audio time a run covers) beside
// the adapter's latency; then it streams through an adapter at the default
// settings in real time, paced like an audio callback, and counts underruns.
// The load of an instance at the default update is also timed with 1 and 2
// threads per run and with 1 and 2 instances running at once, as in a
// session with two plugins. Tables, then one JSON line.
#include "tonwerk/tonwerk_live.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kRate = 44100.0;

constexpr const char* kUsage =
    "usage: tonwerk-live-bench [--model PATH]... [--runs N] [--minutes M] [--updates U,U,...]\n"
    "  --model PATH  model to time (repeatable; default: the DSP baseline, the default model, and identity)\n"
    "  --runs N      model runs timed per setting after one warm-up; the median counts (default 20)\n"
    "  --minutes M   real-time stream through the adapter at default settings with the first model\n"
    "                (default 1; 0 skips it)\n"
    "  --updates L   the update values to time (default 1,2,4,8,16,32)\n";

struct Options {
    std::vector<std::string> models;
    int runs = 20;
    double minutes = 1;
    std::vector<unsigned> updates{1, 2, 4, 8, 16, 32};
};

std::vector<unsigned> numbers(const std::string& list) {
    std::vector<unsigned> values;
    for (std::size_t at = 0; at < list.size();) {
        const std::size_t comma = std::min(list.find(',', at), list.size());
        values.push_back(static_cast<unsigned>(std::stoul(list.substr(at, comma - at))));
        at = comma + 1;
    }
    return values;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--model" && hasValue) options.models.push_back(argv[++i]);
        else if (arg == "--runs" && hasValue) options.runs = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--minutes" && hasValue) options.minutes = std::atof(argv[++i]);
        else if (arg == "--updates" && hasValue) options.updates = numbers(argv[++i]);
        else {
            std::fputs(kUsage, arg == "--help" ? stdout : stderr);
            std::exit(arg == "--help" ? 0 : 2);
        }
    }
    if (options.models.empty()) {
        options.models = {std::string(TONWERK_MODELS_DIR) + "/tonwerk-dsp-baseline.onnx",
                          std::string(TONWERK_MODELS_DIR) + "/identity.onnx"};
    }
    return options;
}

std::vector<unsigned char> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(path + ": cannot read");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string baseName(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A few seconds of two detuned tones, so that the model sees music-like input.
void fill(std::vector<float>& block, std::size_t from) {
    for (std::size_t i = 0; i < block.size() / 2; ++i) {
        const double t = static_cast<double>(from + i) / kRate;
        block[2 * i] = static_cast<float>(0.3 * std::sin(2 * M_PI * 220 * t) + 0.1 * std::sin(2 * M_PI * 3300 * t));
        block[2 * i + 1] = static_cast<float>(0.3 * std::sin(2 * M_PI * 221 * t));
    }
}

struct Outputs {
    explicit Outputs(std::size_t frames) : buffers(TW_OUTPUT_COUNT, std::vector<float>(2 * frames)) {
        for (int s = 0; s < TW_OUTPUT_COUNT; ++s) pointers[s] = buffers[s].data();
    }
    std::vector<std::vector<float>> buffers;
    float* pointers[TW_OUTPUT_COUNT];
};

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// Seconds of each of `runs` engine runs after one warm-up; `started` counts
// the engines that are ready, and timing waits until `instances` are.
std::vector<double> timeEngine(tonwerk::live::Engine& engine, int runs, std::atomic<int>& started, int instances) {
    const std::size_t block = engine.blockFrames();
    std::vector<float> input(2 * block);
    Outputs out(block);
    std::vector<double> seconds;
    for (int r = 0; r <= runs; ++r) {
        fill(input, static_cast<std::size_t>(r) * block);
        const auto start = Clock::now();
        engine.process(input.data(), out.pointers);
        if (r == 0) {
            started.fetch_add(1);
            while (started.load() < instances) std::this_thread::yield();
        } else {
            seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        }
    }
    return seconds;
}

// Median seconds of one engine run while `instances` engines, each on its
// own thread with `threads` threads per run, work at once.
double timeRuns(const std::vector<unsigned char>& model, unsigned update, int runs, unsigned threads = 1,
                int instances = 1) {
    tw_live_settings settings = tonwerk::live::defaultSettings();
    settings.update = update;
    settings.threads = threads;
    std::vector<tonwerk::live::Engine> engines;
    for (int i = 0; i < instances; ++i) engines.emplace_back(model, settings);
    std::vector<std::vector<double>> seconds(static_cast<std::size_t>(instances));
    std::atomic<int> started{0};
    std::vector<std::thread> workers;
    for (std::size_t i = 0; i < engines.size(); ++i) {
        workers.emplace_back([&, i] { seconds[i] = timeEngine(engines[i], runs, started, instances); });
    }
    for (std::thread& worker : workers) worker.join();
    std::vector<double> all;
    for (const auto& each : seconds) all.insert(all.end(), each.begin(), each.end());
    return median(all);
}

std::size_t adapterLatency(const std::vector<unsigned char>& model, unsigned update) {
    tw_live_settings settings = tonwerk::live::defaultSettings();
    settings.update = update;
    return tonwerk::live::Adapter(model, settings).latency().total;
}

// Blocks of 512 frames handed over when their time has come, as a sound
// card's callback would; the adapter's worker must keep up on its own.
std::uint64_t realTimeUnderruns(const std::vector<unsigned char>& model, double minutes) {
    tonwerk::live::Adapter adapter(model);
    constexpr std::size_t kBlock = 512;
    std::vector<float> input(2 * kBlock);
    Outputs out(kBlock);
    const auto start = Clock::now();
    const auto blocks = static_cast<std::size_t>(minutes * 60 * kRate / kBlock);
    for (std::size_t b = 0; b < blocks; ++b) {
        std::this_thread::sleep_until(start + std::chrono::duration<double>(static_cast<double>(b * kBlock) / kRate));
        fill(input, b * kBlock);
        adapter.process(input.data(), out.pointers, kBlock);
    }
    return adapter.underruns();
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    std::string json = "{";
    std::printf("%-28s %7s %10s %10s %8s %14s\n", "model", "update", "block ms", "run ms", "load", "latency ms");
    for (const std::string& path : options.models) {
        const std::vector<unsigned char> model = readFile(path);
        json += "\"" + baseName(path) + "\":{";
        for (const unsigned update : options.updates) {
            const double run = timeRuns(model, update, options.runs);
            const double block = update * 1024 / kRate;
            const double latency = static_cast<double>(adapterLatency(model, update)) / kRate;
            std::printf("%-28s %7u %10.1f %10.2f %8.3f %14.1f\n", baseName(path).c_str(), update, 1000 * block,
                        1000 * run, run / block, 1000 * latency);
            json += "\"load_update_" + std::to_string(update) + "\":" + std::to_string(run / block) + ",";
        }
        json.back() = '}';
        json += ",";
    }
    std::printf("\n%-28s %7s %8s %10s %10s %8s\n", "model (update 4)", "threads", "instances", "run ms",
                "load each", "cores");
    for (const std::string& path : options.models) {
        const std::vector<unsigned char> model = readFile(path);
        for (const unsigned threads : {1U, 2U}) {
            for (const int instances : {1, 2}) {
                const double run = timeRuns(model, 4, options.runs, threads, instances);
                const double load = run / (4 * 1024 / kRate);
                std::printf("%-28s %7u %8d %10.2f %10.3f %8.2f\n", baseName(path).c_str(), threads, instances,
                            1000 * run, load, load * instances);
                json += "\"" + baseName(path) + "_threads_" + std::to_string(threads) + "_instances_" +
                        std::to_string(instances) + "\":" + std::to_string(load) + ",";
            }
        }
    }
    const std::vector<unsigned char> first = readFile(options.models.front());
    tonwerk::live::Adapter defaults(first);
    const tw_live_latency latency = defaults.latency();
    std::printf("default latency: %zu frames (%.1f ms): lookahead %zu, output delay %zu\n", latency.total,
                1000 * static_cast<double>(latency.total) / kRate, latency.lookahead, latency.output_delay);
    json += "\"default_latency_frames\":" + std::to_string(latency.total);
    if (options.minutes > 0) {
        const std::uint64_t underruns = realTimeUnderruns(first, options.minutes);
        std::printf("real time, %.1f minutes at default settings with %s: %llu frames of underrun\n",
                    options.minutes, baseName(options.models.front()).c_str(),
                    static_cast<unsigned long long>(underruns));
        json += ",\"realtime_minutes\":" + std::to_string(options.minutes) +
                ",\"underrun_frames\":" + std::to_string(underruns);
    }
    std::printf("%s}\n", json.c_str());
    return 0;
}
