// tonwerk-soak: host streams through the identity model for a given
// wall-clock time, one after another, each with its own random length (1 in
// 64 empty), layout, stems, start in the signal and block sizes, every frame
// that comes back checked against the frame that went in
// (identity_stream_check.h). The model is loaded again every 16 streams.
// Each minute it prints the audio streamed and the resident memory (now, and
// the peak of that minute); it fails when a frame differs or the last
// minute's peak outgrew the first's: leaks and drift that short tests cannot show.
#include "identity_stream_check.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

namespace {

using Clock = std::chrono::steady_clock;
using tonwerk::test::IdentityStreamCheck;

constexpr double kSampleRate = 44100.0;
constexpr unsigned kReloadEvery = 16;

const char* const kUsage =
    "usage: tonwerk-soak [--minutes M] [--seed N] [--stream-minutes S] [--max-growth MB]\n"
    "  --minutes M         wall-clock time to run (default 2)\n"
    "  --seed N            seed of every random choice (default 20261124)\n"
    "  --stream-minutes S  longest stream, in minutes of audio (default 10)\n"
    "  --max-growth MB     fail when the last minute's memory peak exceeds the first's by more (default 16)\n"
    "exit status: 0 every frame came back, 1 a frame differed or memory grew, 2 usage, 3 model or stream error\n";

struct Options {
    double minutes = 2, seed = 20261124, streamMinutes = 10, maxGrowthMb = 16;
};

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        double* target = name == "--minutes" ? &options.minutes : name == "--seed" ? &options.seed
                       : name == "--stream-minutes" ? &options.streamMinutes
                       : name == "--max-growth" ? &options.maxGrowthMb : nullptr;
        char* end = nullptr;
        const double value = i + 1 < argc ? std::strtod(argv[i + 1], &end) : 0.0;
        if (target == nullptr || end == nullptr || *end != '\0' || !(value > 0)) {
            std::fprintf(stderr, "tonwerk-soak: %s needs a positive number\n%s", name.c_str(), kUsage);
            std::exit(name == "--help" ? 0 : 2);
        }
        *target = value;
    }
    return options;
}

// Resident memory of this process now and at its peak, in MB, from a
// "VmRSS:   1234 kB" and a "VmHWM: ..." line of /proc/self/status.
std::pair<double, double> residentMb() {
    std::ifstream file("/proc/self/status");
    const std::string status{std::istreambuf_iterator<char>(file), {}};
    const auto field = [&status](const std::string& name) {
        const std::size_t at = status.find(name + ":");
        if (at == std::string::npos) throw std::runtime_error("/proc/self/status has no " + name);
        return std::strtod(status.c_str() + at + name.size() + 1, nullptr) / 1024.0;
    };
    return {field("VmRSS"), field("VmHWM")};
}

// Starts a new peak at the current resident size, so each minute gets its own.
void restartPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

std::size_t logUniform(std::mt19937_64& random, std::size_t most) {
    std::uniform_real_distribution<double> exponent(0.0, std::log(static_cast<double>(most) + 1.0));
    return std::clamp<std::size_t>(static_cast<std::size_t>(std::exp(exponent(random))), 1, most);
}

bool oneIn(std::mt19937_64& random, unsigned n) { return std::uniform_int_distribution<unsigned>(1, n)(random) == 1; }

// Mostly host-sized blocks, some as large as the processor takes, and now
// and then a run of single frames; the last ones go with eof, or now and
// then eof follows in an empty call of its own. Returns the calls made.
std::size_t streamOnce(IdentityStreamCheck& stream, std::size_t length, std::mt19937_64& random) {
    std::size_t calls = 0, sent = 0, singleFramesLeft = 0;
    for (bool ended = false; !ended; ++calls) {
        if (singleFramesLeft == 0 && oneIn(random, 50)) singleFramesLeft = logUniform(random, 64);
        const std::size_t most = stream.processor().maxInputSize(), kind = random() % 100;
        std::size_t frames = kind < 60 ? 1 + random() % 4096 : kind < 98 ? logUniform(random, most) : most;
        if (singleFramesLeft > 0) {
            --singleFramesLeft;
            frames = 1;
        }
        frames = std::min(frames, length - sent);
        sent += frames;
        ended = sent == length && (frames == 0 || !oneIn(random, 4));
        stream.send(frames, ended);
    }
    return calls;
}

int soak(const Options& options) {
    std::mt19937_64 random(static_cast<unsigned long long>(options.seed));
    const auto maxFrames = static_cast<std::size_t>(options.streamMinutes * 60.0 * kSampleRate);
    const auto start = Clock::now();
    auto nextMinute = start + std::chrono::minutes(1);
    std::vector<double> peaks;
    std::size_t frames = 0, calls = 0, streams = 0;
    std::shared_ptr<tonwerk::InferenceContext> context;
    restartPeak();
    for (; Clock::now() - start < std::chrono::duration<double>(60.0 * options.minutes); ++streams) {
        if (streams % kReloadEvery == 0) context = tonwerk::test::loadContext("identity.onnx");
        const std::size_t length = oneIn(random, 64) ? 0 : logUniform(random, maxFrames);
        IdentityStreamCheck stream(context, random() % 64, oneIn(random, 2), 2, random() % 1000000);
        calls += streamOnce(stream, length, random);
        frames += length;
        if (Clock::now() < nextMinute) continue;
        const auto [now, peak] = residentMb();
        peaks.push_back(peak);
        std::printf("minute %3zu: %9.1f min of audio, %6zu streams, %8zu calls; resident %7.1f MB, peak %7.1f MB\n",
                    peaks.size(), static_cast<double>(frames) / kSampleRate / 60.0, streams + 1, calls, now, peak);
        std::fflush(stdout);
        restartPeak();
        nextMinute += std::chrono::minutes(1);
    }
    const double minutes = std::chrono::duration<double>(Clock::now() - start).count() / 60.0;
    const double audioMinutes = static_cast<double>(frames) / kSampleRate / 60.0;
    std::printf("%.1f min: %.1f min of audio (%.0fx real time) in %zu streams and %zu calls, every frame as it "
                "went in\n", minutes, audioMinutes, audioMinutes / minutes, streams, calls);
    if (peaks.size() < 2) return 0;
    const double growth = peaks.back() - peaks.front();
    std::printf("memory peak: first minute %.1f MB, last minute %.1f MB (%+.1f MB)\n", peaks.front(), peaks.back(),
                growth);
    if (growth <= options.maxGrowthMb) return 0;
    std::fprintf(stderr, "tonwerk-soak: the memory peak grew by %.1f MB (at most %.1f allowed)\n", growth,
                 options.maxGrowthMb);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return soak(parseOptions(argc, argv));
    } catch (const tonwerk::test::StreamMismatch& e) {
        std::fprintf(stderr, "tonwerk-soak: %s\n", e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonwerk-soak: %s\n", e.what());
        return 3;
    }
}
