// tonwerk-soak: streams synthetic stereo through the identity model for a
// given wall-clock time, one host stream after another, each with its own
// random length, layout, stems and block sizes, and checks every frame that
// comes back against the frame that went in. Each minute it prints the audio
// streamed and the resident memory (now, and the peak of that minute); it
// fails when a frame differs or the last minute's peak outgrew the first's.
#include "common/file_bytes.h"
#include "common/tool_error.h"
#include "resident_memory.h"
#include "soak_stream.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace tonwerk::soak;
namespace tools = tonwerk::tools;
using Clock = std::chrono::steady_clock;

constexpr double kSampleRate = 44100.0;

const char* const usageText =
    "usage: tonwerk-soak [--minutes M] [--model PATH] [--seed N] [--stream-minutes S] [--reload-every K]\n"
    "                    [--max-growth MB]\n"
    "  --minutes M         wall-clock time to run (default 2)\n"
    "  --model PATH        an identity model: vocals = input, other stems silent (default: the generated one)\n"
    "  --seed N            seed of every random choice (default 20261124)\n"
    "  --stream-minutes S  longest stream, in minutes of audio (default 10)\n"
    "  --reload-every K    load the model again after K streams (default 16)\n"
    "  --max-growth MB     fail when the last minute's memory peak exceeds the first's by more (default 16)\n"
    "exit status: 0 every frame came back, 1 a frame differed or memory grew, 2 usage, 3 model or stream error\n";

struct Options {
    double minutes = 2;
    std::string model = TONWERK_MODELS_DIR "/identity.onnx";
    unsigned long long seed = 20261124;
    double streamMinutes = 10;
    unsigned long reloadEvery = 16;
    double maxGrowthMb = 16;
};

double positive(const std::string& option, const char* text) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value > 0)) throw tools::usageError(option + " needs a positive number");
    return value;
}

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(usageText, stdout);
            std::exit(0);
        }
        if (i + 1 >= argc) throw tools::usageError("unknown option or missing value: " + arg);
        const char* value = argv[++i];
        if (arg == "--minutes") {
            options.minutes = positive(arg, value);
        } else if (arg == "--model") {
            options.model = value;
        } else if (arg == "--seed") {
            options.seed = static_cast<unsigned long long>(positive(arg, value));
        } else if (arg == "--stream-minutes") {
            options.streamMinutes = positive(arg, value);
        } else if (arg == "--reload-every") {
            options.reloadEvery = static_cast<unsigned long>(positive(arg, value));
        } else if (arg == "--max-growth") {
            options.maxGrowthMb = positive(arg, value);
        } else {
            throw tools::usageError("unknown option " + arg);
        }
    }
    return options;
}

std::shared_ptr<tonwerk::InferenceContext> loadModel(const std::string& path) {
    const std::vector<unsigned char> bytes = tools::readFileBytes(path);
    return std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{bytes.data(), bytes.size(), ""});
}

struct Totals {
    std::size_t frames = 0;
    std::size_t calls = 0;
    std::size_t streams = 0;
};

class MinuteReport {
public:
    MinuteReport() : start(Clock::now()), next(start + std::chrono::minutes(1)) {}

    // Prints a line when a minute has passed since the last one.
    void onStep(const Totals& totals) {
        if (Clock::now() < next) return;
        const ResidentMemory memory = residentMemory();
        peaks.push_back(memory.peakMb);
        std::printf("minute %3zu: %9.1f min of audio, %6zu streams, %8zu calls; resident %7.1f MB, peak %7.1f MB\n",
                    peaks.size(), static_cast<double>(totals.frames) / kSampleRate / 60.0, totals.streams,
                    totals.calls, memory.currentMb, memory.peakMb);
        std::fflush(stdout);
        restartPeak();
        next += std::chrono::minutes(1);
    }

    double elapsedMinutes() const { return std::chrono::duration<double>(Clock::now() - start).count() / 60.0; }
    const std::vector<double>& minutePeaks() const { return peaks; }

private:
    Clock::time_point start;
    Clock::time_point next;
    std::vector<double> peaks;
};

int soak(const Options& options) {
    std::mt19937_64 random(options.seed);
    const auto maxFrames = static_cast<std::size_t>(options.streamMinutes * 60.0 * kSampleRate);
    const auto end = Clock::now() + std::chrono::duration<double>(60.0 * options.minutes);
    restartPeak();
    MinuteReport report;
    Totals totals;
    std::shared_ptr<tonwerk::InferenceContext> context;
    while (Clock::now() < end) {
        if (totals.streams % options.reloadEvery == 0) context = loadModel(options.model);
        SoakStream stream(context, maxFrames, random);
        for (bool more = true; more;) {
            const StreamCounts before = stream.counts();
            more = stream.step(random);
            totals.frames += stream.counts().frames - before.frames;
            totals.calls += stream.counts().calls - before.calls;
            report.onStep(totals);
        }
        ++totals.streams;
    }
    const double audioMinutes = static_cast<double>(totals.frames) / kSampleRate / 60.0;
    std::printf("%.1f min: %.1f min of audio (%.0fx real time) in %zu streams and %zu calls, "
                "every frame as it went in\n",
                report.elapsedMinutes(), audioMinutes, audioMinutes / report.elapsedMinutes(), totals.streams,
                totals.calls);
    const auto& peaks = report.minutePeaks();
    if (peaks.size() < 2) return 0;
    const double growth = peaks.back() - peaks.front();
    std::printf("memory peak: first minute %.1f MB, last minute %.1f MB (%+.1f MB)\n", peaks.front(), peaks.back(),
                growth);
    if (growth > options.maxGrowthMb) {
        std::fprintf(stderr, "tonwerk-soak: the memory peak grew by %.1f MB (at most %.1f allowed)\n", growth,
                     options.maxGrowthMb);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return soak(parseOptions(argc, argv));
    } catch (const Mismatch& e) {
        std::fprintf(stderr, "tonwerk-soak: %s\n", e.what());
        return 1;
    } catch (const tools::ToolError& e) {
        std::fprintf(stderr, "tonwerk-soak: %s\n", tools::oneLine(e.what()).c_str());
        if (e.exitStatus() == tools::exitUsage) std::fputs(usageText, stderr);
        return e.exitStatus();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonwerk-soak: %s\n", tools::oneLine(e.what()).c_str());
        return tools::exitInput;
    }
}
