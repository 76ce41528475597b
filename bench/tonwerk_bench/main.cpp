// tonwerk-bench: how fast the stream runs beside the work it cannot avoid.
// One run times, in this process, the bare FFTs the stream needs, the model
// runs alone, and the stream with every stem and with one; two child runs
// give the peak memory of a stream and of one ten times longer. A table,
// then one JSON line.
#include "bench_signal.h"
#include "measurements.h"
#include "peak_rss.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace tonwerk::bench;

constexpr const char* kUsage =
    "usage: tonwerk-bench [--seconds S] [--model PATH] [--repeat N] [--no-rss]\n"
    "  --seconds S   length of the synthetic stereo stream (default 60)\n"
    "  --model PATH  model to measure (default: the identity model of the build)\n"
    "  --repeat N    runs of each measurement; the fastest counts (default 3)\n"
    "  --no-rss      skip the two child runs that measure peak memory\n";

struct Options {
    double seconds = 60;
    std::string model = std::string(TONWERK_MODELS_DIR) + "/identity.onnx";
    int repeat = 3;
    bool rssChild = false;
    bool rss = true;
};

double positiveNumber(const std::string& name, const char* text) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value > 0) || value > 1e6) {
        throw std::invalid_argument(name + " needs a positive number, got '" + text + "'");
    }
    return value;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        if (arg == "--no-rss") {
            options.rss = false;
            continue;
        }
        if (i + 1 >= argc) throw std::invalid_argument("unknown option or missing value: " + arg);
        const char* value = argv[++i];
        if (arg == "--seconds") {
            options.seconds = positiveNumber(arg, value);
        } else if (arg == "--model") {
            options.model = value;
        } else if (arg == "--repeat") {
            options.repeat = static_cast<int>(positiveNumber(arg, value));
        } else if (arg == "--rss-child") {
            options.seconds = positiveNumber(arg, value);
            options.rssChild = true;
        } else {
            throw std::invalid_argument("unknown option: " + arg);
        }
    }
    return options;
}

std::vector<unsigned char> readModel(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read the model " + path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string selfPath() {
    std::vector<char> path(4096);
    const ssize_t n = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (n <= 0) throw std::runtime_error("cannot find this program's own path");
    return std::string(path.data(), static_cast<std::size_t>(n));
}

std::shared_ptr<tonwerk::InferenceContext> contextOf(const std::vector<unsigned char>& bytes) {
    return std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{bytes.data(), bytes.size(), ""});
}

struct Figures {
    double audio = 0;
    double floor = std::numeric_limits<double>::max();
    double model = std::numeric_limits<double>::max();
    double pipeline = std::numeric_limits<double>::max();
    double oneStem = std::numeric_limits<double>::max();
    double rss = 0;
    double rssLong = 0;
    std::size_t runs = 0;
    std::size_t frames = 0;
};

void printTable(const Options& options, const Figures& f) {
    auto row = [&](const char* name, double seconds) {
        std::printf("%-24s %10.4f s %10.1f x real time\n", name, seconds, f.audio / seconds);
    };
    std::printf("tonwerk-bench: %g s of stereo at %zu Hz in blocks of %zu, %s, fastest of %d\n", f.audio,
                kSampleRate, kHostBlock, options.model.c_str(), options.repeat);
    row("fft floor", f.floor);
    row("model only", f.model);
    row("pipeline, six stems", f.pipeline);
    row("pipeline, one stem", f.oneStem);
    std::printf("%-24s %10.1f MB (%g s) %8.1f MB (%g s)\n", "peak RSS", f.rss, f.audio, f.rssLong, 10 * f.audio);
    std::printf("%-24s %10.2f (target <= 1.5)\n", "overhead vs floor", (f.pipeline - f.model) / f.floor);
    std::printf("%-24s %10.2f (target >= 0.5)\n", "speed vs floor", f.floor / f.pipeline);
    std::printf("%-24s %10.2f (target >= 3)\n", "one-stem speedup", f.pipeline / f.oneStem);
    std::printf("%-24s %10.1f MB (target <= 5)\n", "RSS growth at 10x", f.rssLong - f.rss);
    std::printf("{\"audio_seconds\":%g,\"fft_floor_seconds\":%.6f,\"model_only_seconds\":%.6f,"
                "\"pipeline_seconds\":%.6f,\"one_stem_seconds\":%.6f,\"peak_rss_mb\":%.1f,\"peak_rss_mb_10x\":%.1f,"
                "\"x_realtime\":%.2f,\"overhead_vs_floor\":%.3f,\"one_stem_speedup\":%.3f,"
                "\"speed_vs_floor\":%.3f,\"model_runs\":%zu,\"frames\":%zu}\n",
                f.audio, f.floor, f.model, f.pipeline, f.oneStem, f.rss, f.rssLong, f.audio / f.pipeline,
                (f.pipeline - f.model) / f.floor, f.pipeline / f.oneStem, f.floor / f.pipeline, f.runs, f.frames);
}

int run(const Options& options) {
    const BenchSignal signal(static_cast<std::size_t>(options.seconds * kSampleRate));
    const std::vector<unsigned char> bytes = readModel(options.model);
    if (options.rssChild) {
        streamSeconds(contextOf(bytes), signal, Stems::all);
        return 0;
    }
    Figures f;
    f.audio = static_cast<double>(signal.frames()) / kSampleRate;
    f.runs = modelRunsOf(signal);
    f.frames = framesOf(signal);
    const auto context = contextOf(bytes);
    ModelOnly modelOnly(bytes, signal);
    for (int r = 0; r < options.repeat; ++r) {
        f.floor = std::min(f.floor, fftFloorSeconds(signal, f.frames));
        f.model = std::min(f.model, modelOnly.seconds(f.runs));
        f.pipeline = std::min(f.pipeline, streamSeconds(context, signal, Stems::all));
        f.oneStem = std::min(f.oneStem, streamSeconds(context, signal, Stems::one));
    }
    if (options.rss) {
        const std::string self = selfPath();
        f.rss = childPeakRssMb(self, options.seconds, options.model);
        f.rssLong = childPeakRssMb(self, 10 * options.seconds, options.model);
    }
    std::fflush(stdout);  // the library's own lines come first
    printTable(options, f);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonwerk-bench: %s\n", e.what());
        std::fputs(kUsage, stderr);
        return 2;
    }
}
