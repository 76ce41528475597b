// Helpers for streaming audio through the public interface in tests: model
// loading, stereo test signals, and whole streams collected per stem.
#pragma once

#include "tonwerk/tonwerk_proc_multistem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk_test {

constexpr double kSampleRate = 44100.0;
constexpr std::size_t kOutputCount = 8;  // six stems, residual, mix
constexpr std::size_t kResidual = 6;
constexpr std::size_t kMix = 7;
constexpr unsigned kAllStems = 0x3F;

inline std::shared_ptr<tonwerk::InferenceContext> loadContext(const std::string& modelFile) {
    std::ifstream file(std::string(TONWERK_TEST_MODELS_DIR) + "/" + modelFile, std::ios::binary);
    const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (bytes.empty()) {
        throw std::runtime_error("test model missing: " + modelFile);
    }
    return std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{bytes.data(), bytes.size(), ""});
}

// Stem bits in configuration order: bit 0 vocals ... bit 5 bass.
inline tonwerk::TonwerkProcConfig makeConfig(bool interleaved, unsigned stemBits = kAllStems,
                                             std::int32_t channels = 2) {
    tonwerk::TonwerkProcConfig config{};
    config.vocals = stemBits & 1u;
    config.drum = (stemBits >> 1) & 1u;
    config.piano = (stemBits >> 2) & 1u;
    config.acousticGuitar = (stemBits >> 3) & 1u;
    config.electricGuitar = (stemBits >> 4) & 1u;
    config.bass = (stemBits >> 5) & 1u;
    config.channels = channels;
    config.interleaved = interleaved;
    return config;
}

struct Stereo {
    std::vector<float> left;
    std::vector<float> right;
    std::size_t frames() const { return left.size(); }
};

struct Partial {
    double hz;
    double amplitude;
    double phase;
};

inline std::vector<float> sines(std::size_t frames, const std::vector<Partial>& partials) {
    std::vector<float> out(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        double v = 0.0;
        for (const Partial& p : partials) {
            v += p.amplitude * std::sin(2.0 * M_PI * p.hz * static_cast<double>(i) / kSampleRate + p.phase);
        }
        out[i] = static_cast<float>(v);
    }
    return out;
}

// Sines below 16 kHz, different in each channel, peak below 0.75.
inline Stereo bandLimitedSignal(std::size_t frames) {
    return {sines(frames, {{220.0, 0.4, 0.0}, {3100.7, 0.2, 0.5}, {15500.0, 0.1, 1.0}}),
            sines(frames, {{331.0, 0.35, 1.0}, {7000.0, 0.2, 0.0}, {12345.6, 0.15, 2.0}})};
}

inline void requireFrames(const Stereo& s, std::size_t from, std::size_t count) {
    if (from + count > s.frames()) {
        throw std::out_of_range("test signal has " + std::to_string(s.frames()) + " frames, asked for " +
                                std::to_string(from) + " + " + std::to_string(count));
    }
}

inline std::vector<float> interleavedBlock(const Stereo& s, std::size_t from, std::size_t count) {
    requireFrames(s, from, count);
    std::vector<float> out(2 * count);
    for (std::size_t i = 0; i < count; ++i) {
        out[2 * i] = s.left[from + i];
        out[2 * i + 1] = s.right[from + i];
    }
    return out;
}

inline std::vector<float> planarBlock(const Stereo& s, std::size_t from, std::size_t count) {
    requireFrames(s, from, count);
    std::vector<float> out(s.left.begin() + static_cast<std::ptrdiff_t>(from),
                           s.left.begin() + static_cast<std::ptrdiff_t>(from + count));
    out.insert(out.end(), s.right.begin() + static_cast<std::ptrdiff_t>(from),
               s.right.begin() + static_cast<std::ptrdiff_t>(from + count));
    return out;
}

// All eight outputs of a stream, appended call after call.
struct StreamOutput {
    std::array<Stereo, kOutputCount> stems;
    std::size_t frames() const { return stems[0].frames(); }
};

// Appends one process() result; checks its shape on the way.
inline void append(StreamOutput& out, const std::vector<std::vector<float>>& result, bool interleaved) {
    if (result.empty()) {
        return;
    }
    ASSERT_EQ(result.size(), kOutputCount);
    const std::size_t n = result[0].size() / 2;
    for (std::size_t s = 0; s < kOutputCount; ++s) {
        ASSERT_EQ(result[s].size(), 2 * n) << "output " << s;
        Stereo& dst = out.stems[s];
        for (std::size_t i = 0; i < n; ++i) {
            dst.left.push_back(interleaved ? result[s][2 * i] : result[s][i]);
            dst.right.push_back(interleaved ? result[s][2 * i + 1] : result[s][n + i]);
        }
    }
}

// Feeds `signal` in blocks of nextBlock(call, processor) frames; the block
// that reaches the end carries eof.
inline StreamOutput runStream(tonwerk::TonwerkProc& proc, const Stereo& signal, bool interleaved,
                              const std::function<std::size_t(std::size_t, const tonwerk::TonwerkProc&)>& nextBlock) {
    StreamOutput out;
    std::size_t at = 0;
    for (std::size_t call = 0; at < signal.frames(); ++call) {
        const std::size_t n = std::min(nextBlock(call, proc), signal.frames() - at);
        const auto block = interleaved ? interleavedBlock(signal, at, n) : planarBlock(signal, at, n);
        at += n;
        append(out, proc.process(block, at == signal.frames()), interleaved);
    }
    return out;
}

inline StreamOutput runInBlocksOf(tonwerk::TonwerkProc& proc, const Stereo& signal, std::size_t block,
                                  bool interleaved = true) {
    return runStream(proc, signal, interleaved, [block](std::size_t, const tonwerk::TonwerkProc&) { return block; });
}

struct Deviation {
    double max = 0.0;
    std::size_t at = 0;
};

// Largest |a - b| over both channels; sizes must match.
inline Deviation deviation(const Stereo& a, const Stereo& b) {
    Deviation d;
    const auto scan = [&d](const std::vector<float>& x, const std::vector<float>& y) {
        for (std::size_t i = 0; i < std::min(x.size(), y.size()); ++i) {
            const double e = std::fabs(static_cast<double>(x[i]) - static_cast<double>(y[i]));
            if (e > d.max) {
                d.max = e;
                d.at = i;
            }
        }
    };
    scan(a.left, b.left);
    scan(a.right, b.right);
    return d;
}

inline bool allZero(const Stereo& s) {
    for (const auto* row : {&s.left, &s.right}) {
        for (const float v : *row) {
            if (v != 0.0F) {
                return false;
            }
        }
    }
    return true;
}

inline Stereo sum(const Stereo& a, const Stereo& b) {
    Stereo out{a.left, a.right};
    for (std::size_t i = 0; i < out.left.size(); ++i) {
        out.left[i] += b.left[i];
        out.right[i] += b.right[i];
    }
    return out;
}

}  // namespace tonwerk_test
