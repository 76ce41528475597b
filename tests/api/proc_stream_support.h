// Streaming stereo test signals through the public interface, collected per stem.
#pragma once

#include "common/stem_bits.h"
#include "identity_stream_check.h"
#include "test_support.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tonwerk_test {

using tonwerk::test::IdentityStreamCheck;

constexpr std::size_t kOutputCount = 8;  // six stems, residual, mix
constexpr std::size_t kResidual = 6;
constexpr std::size_t kMix = 7;
constexpr unsigned kAllStems = tonwerk::tools::kAllStemBits;
constexpr std::size_t kEdge = tonwerk::test::kStreamEdgeFrames;
// Tighter than the stream check's edge: these signals are quieter (measured 6e-5).
constexpr double kEdgeTolerance = 1e-4;

inline std::shared_ptr<tonwerk::InferenceContext> loadContext(const std::string& modelFile) {
    const auto bytes = tonwerk::test::readModel(modelFile);
    return std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{bytes.data(), bytes.size(), ""});
}

// Stem bits in configuration order: bit 0 vocals ... bit 5 bass.
inline tonwerk::TonwerkProcConfig makeConfig(bool interleaved, unsigned bits = kAllStems) {
    return tonwerk::tools::configForStemBits(bits, interleaved);
}

struct Stereo {
    std::vector<float> left;
    std::vector<float> right;
    std::size_t frames() const { return left.size(); }
};

// Sum of sines {hz, amplitude, phase} at 44.1 kHz.
inline std::vector<float> sines(std::size_t frames, const std::vector<std::array<double, 3>>& partials) {
    std::vector<float> out(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        double v = 0.0;
        for (const auto& p : partials) v += p[1] * std::sin(2.0 * tonwerk::test::kPi * p[0] * i / 44100.0 + p[2]);
        out[i] = static_cast<float>(v);
    }
    return out;
}

// Sines below 16 kHz, different in each channel, peak below 0.75.
inline Stereo bandLimitedSignal(std::size_t frames) {
    return {sines(frames, {{220.0, 0.4, 0.0}, {3100.7, 0.2, 0.5}, {15500.0, 0.1, 1.0}}),
            sines(frames, {{331.0, 0.35, 1.0}, {7000.0, 0.2, 0.0}, {12345.6, 0.15, 2.0}})};
}

inline std::vector<float> block(const Stereo& s, std::size_t from, std::size_t count, bool interleaved) {
    std::vector<float> out(2 * count);
    for (std::size_t i = 0; i < count; ++i) {
        out[interleaved ? 2 * i : i] = s.left.at(from + i);
        out[interleaved ? 2 * i + 1 : count + i] = s.right.at(from + i);
    }
    return out;
}

// All eight outputs of a stream, appended call after call.
struct StreamOutput {
    std::array<Stereo, kOutputCount> stems;
    std::size_t frames() const { return stems[0].frames(); }
};

inline void append(StreamOutput& out, const std::vector<std::vector<float>>& result, bool interleaved) {
    if (result.empty()) return;
    ASSERT_EQ(result.size(), kOutputCount);
    const std::size_t n = result[0].size() / 2;
    for (std::size_t s = 0; s < kOutputCount; ++s) {
        ASSERT_EQ(result[s].size(), 2 * n) << "output " << s;
        for (std::size_t i = 0; i < n; ++i) {
            out.stems[s].left.push_back(result[s][interleaved ? 2 * i : i]);
            out.stems[s].right.push_back(result[s][interleaved ? 2 * i + 1 : n + i]);
        }
    }
}

// Feeds `signal` in blocks of `size` frames; the block that reaches the end carries eof.
inline StreamOutput runInBlocksOf(tonwerk::TonwerkProc& proc, const Stereo& signal, std::size_t size,
                                  bool interleaved = true) {
    StreamOutput out;
    for (std::size_t at = 0; at < signal.frames();) {
        const std::size_t n = std::min(size, signal.frames() - at);
        const auto input = block(signal, at, n, interleaved);
        at += n;
        append(out, proc.process(input, at == signal.frames()), interleaved);
    }
    return out;
}

inline Stereo sum(const Stereo& a, const Stereo& b) {
    Stereo out = a;
    for (std::size_t i = 0; i < out.frames(); ++i) {
        out.left[i] += b.left[i];
        out.right[i] += b.right[i];
    }
    return out;
}

// Every frame of `actual` within `tolerance(frame)` of `expected`; stops at the first that is not.
inline void expectNear(const Stereo& actual, const Stereo& expected,
                       const std::function<double(std::size_t)>& tolerance, const std::string& what) {
    ASSERT_EQ(actual.frames(), expected.frames()) << what;
    for (std::size_t i = 0; i < expected.frames(); ++i) {
        ASSERT_NEAR(actual.left[i], expected.left[i], tolerance(i)) << what << ", channel 0, frame " << i;
        ASSERT_NEAR(actual.right[i], expected.right[i], tolerance(i)) << what << ", channel 1, frame " << i;
    }
}

// Within a frame of either end, or anywhere else.
inline double edgeOrInterior(std::size_t i, std::size_t frames, double edge = kEdgeTolerance,
                             double interior = tonwerk::test::kStreamInteriorTolerance) {
    return (i < kEdge || i + kEdge >= frames) ? edge : interior;
}

// The identity model's vocals give back `signal`; residual + mix restore it too.
inline void expectIdentityOutput(const StreamOutput& out, const Stereo& signal) {
    const std::size_t n = signal.frames();
    ASSERT_EQ(out.frames(), n) << "output length differs from input length";
    expectNear(out.stems[0], signal, [n](std::size_t i) { return edgeOrInterior(i, n); }, "vocals");
    expectNear(sum(out.stems[kResidual], out.stems[kMix]), signal,
               [](std::size_t) { return tonwerk::test::kStreamSumTolerance; }, "residual + mix");
}

inline void expectSameOutput(const StreamOutput& a, const StreamOutput& b) {
    for (std::size_t s = 0; s < kOutputCount; ++s) {
        EXPECT_EQ(a.stems[s].left, b.stems[s].left) << "output " << s << ", channel 0";
        EXPECT_EQ(a.stems[s].right, b.stems[s].right) << "output " << s << ", channel 1";
    }
}

}  // namespace tonwerk_test
