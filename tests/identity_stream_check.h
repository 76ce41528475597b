// Host streams through the public interface. IdentityStreamCheck follows one
// stream through the identity model (vocals = input, the other five stems
// silent), checked frame by frame as its output comes back: eight vectors of
// one length, the vocals equal to the input (silent when not asked for), the
// other stems silent, the mix equal to the vocals, residual + mix equal to the
// input, and at eof exactly as many frames back as went in. The soak, the
// schedule fuzzer and the stream tests drive it; the first two do not link
// GoogleTest, so a mismatch throws StreamMismatch.
#pragma once

#include "common/stem_bits.h"
#include "test_models.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk::test {

// The windowed round trip is exact up to single-precision rounding inside a
// stream (3e-7 seen). Within a frame of either end the frames also cover the
// mirrored padding, whose kink has a Nyquist component the forward transform
// drops: it grows with the level and pitch, up to 3.2e-4 seen (and 2.8e-4 in
// streams shorter than one frame, whose ends share their frames). residual +
// mix: one float subtraction and one addition of values below 1.
constexpr double kStreamInteriorTolerance = 1e-6;
constexpr double kStreamEdgeTolerance = 1e-3;
constexpr std::size_t kStreamEdgeFrames = 4096;
constexpr double kStreamSumTolerance = 2.5e-7;
constexpr unsigned kAllStems = tools::kAllStemBits;

// A context on a generated test model, e.g. "identity.onnx".
inline std::shared_ptr<InferenceContext> loadContext(const std::string& file) {
    const std::vector<unsigned char> bytes = readModel(file);
    return std::make_shared<InferenceContext>(ModelData{bytes.data(), bytes.size(), ""});
}

inline TonwerkProcConfig interleavedStereo(unsigned stems = kAllStems) {
    return tools::configForStemBits(stems, true);
}

// Stereo tones below 16 kHz, peak below 0.75, periodic in 2^16 frames (every
// tone a whole number of cycles), so a stream may start at any frame of it.
// Band-limited because a signal near Nyquist would exceed the edge tolerance.
inline float toneSample(std::size_t frame, std::size_t channel) {
    constexpr std::size_t kPeriod = std::size_t{1} << 16;
    static const std::vector<float> table = [] {
        const double cycles[2][3] = {{327, 4607, 18349}, {492, 10403, 22111}};  // per period: 220 Hz ... 14.9 kHz
        const double levels[3] = {0.4, 0.2, 0.12};
        std::vector<float> t(2 * kPeriod);
        for (std::size_t f = 0; f < kPeriod; ++f) {
            for (std::size_t c = 0; c < 2; ++c) {
                double v = 0.0;
                for (int k = 0; k < 3; ++k) {
                    v += levels[k] * std::sin(2.0 * 3.141592653589793 * cycles[c][k] * static_cast<double>(f) /
                                                  static_cast<double>(kPeriod) + c + k);
                }
                t[2 * f + c] = static_cast<float>(v);
            }
        }
        return t;
    }();
    return table[2 * (frame % kPeriod) + channel];
}

// Frames [from, from + frames) of the tones as one interleaved stereo block.
inline std::vector<float> toneBlock(std::size_t from, std::size_t frames) {
    std::vector<float> block(2 * frames);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = toneSample(from + i / 2, i % 2);
    return block;
}

// An interleaved stereo block as a planar one: all left samples, then all right.
inline std::vector<float> toPlanar(const std::vector<float>& interleaved) {
    const std::size_t frames = interleaved.size() / 2;
    std::vector<float> planar(interleaved.size());
    for (std::size_t i = 0; i < interleaved.size(); ++i) planar[i % 2 * frames + i / 2] = interleaved[i];
    return planar;
}

class StreamMismatch : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class IdentityStreamCheck {
public:
    using Process = std::function<std::vector<std::vector<float>>(const std::vector<float>& block, bool eof)>;

    // The stream plays toneSample from frame `signalStart` on. Without a
    // context there is no processor: the caller hands each block to its own.
    IdentityStreamCheck(std::shared_ptr<InferenceContext> context, unsigned stems, bool interleaved,
                        std::int32_t channels = 2, std::size_t signalStart = 0)
        : stems_(stems), interleaved_(interleaved), channels_(channels), streamStart_(signalStart) {
        if (context) proc_.emplace(std::move(context), tools::configForStemBits(stems, interleaved, channels));
    }

    TonwerkProc& processor() { return *proc_; }
    // Frames accepted and frames returned since the stream (re)started.
    std::size_t sent() const { return sent_; }
    std::size_t returned() const { return returned_; }

    // The next `frames` frames as a host block. Interleaved blocks hold
    // `channels` floats a frame, of which the processor reads the first two
    // (stereo pairs from the first 2n floats); the rest is garbage that must
    // never reach the output.
    std::vector<float> nextBlock(std::size_t frames) const {
        std::vector<float> block = toneBlock(streamStart_ + sent_, frames);
        if (!interleaved_) return toPlanar(block);
        block.resize(static_cast<std::size_t>(std::max(channels_, 2)) * frames, 1e30F);
        return block;
    }

    // Streams the next `frames` frames through the processor, or `process`,
    // and checks what comes back. What the call throws passes through, and
    // the frames then count as not sent.
    void send(std::size_t frames, bool eof, const Process& process = {}) {
        const auto block = nextBlock(frames);
        const auto result = process ? process(block, eof) : proc_->process(block, eof);
        sent_ += frames;
        check(result);
        if (!eof) return;
        if (returned_ != sent_) fail("the stream ended with " + std::to_string(returned_) + " frames back");
        // Audio after eof streams on as a new stream whose first frame's
        // overlap still holds the old stream's end.
        streamStart_ += sent_;
        sent_ = returned_ = 0;
        restarted_ = true;
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw StreamMismatch(std::string(interleaved_ ? "interleaved" : "planar") + ", " + std::to_string(channels_) +
                             " channels, stems " + std::to_string(stems_) + ", frame " + std::to_string(returned_) +
                             " of " + std::to_string(sent_) + " sent from frame " + std::to_string(streamStart_) +
                             ": " + what);
    }

    void check(const std::vector<std::vector<float>>& result) {
        if (result.empty()) return;
        if (result.size() != 8) fail(std::to_string(result.size()) + " outputs");
        const std::size_t n = result[0].size() / 2;
        for (const auto& output : result) {
            if (output.size() != 2 * n) fail("outputs of different or odd lengths");
        }
        if (returned_ + n > sent_) fail("more frames came back than went in");
        for (std::size_t i = 0; i < n; ++i, ++returned_) {
            // Frames before eof come back at least a frame before the newest input.
            const bool edge = returned_ < kStreamEdgeFrames || returned_ + kStreamEdgeFrames >= sent_;
            const bool mixedWithOldStream = restarted_ && returned_ < kStreamEdgeFrames;
            const double tolerance = mixedWithOldStream ? 2.0 : edge ? kStreamEdgeTolerance : kStreamInteriorTolerance;
            for (std::size_t c = 0; c < 2; ++c) {
                const auto out = [&](std::size_t s) { return result[s][interleaved_ ? 2 * i + c : c * n + i]; };
                const float in = toneSample(streamStart_ + returned_, c);
                const float vocals = (stems_ & 1u) != 0 ? in : 0.0F;
                if (!(std::fabs(out(0) - vocals) <= tolerance)) {
                    fail("vocals " + std::to_string(out(0)) + " for " + std::to_string(vocals));
                }
                for (std::size_t s = 1; s < 6; ++s) {
                    if (out(s) != 0.0F) fail("stem " + std::to_string(s) + " is not silent");
                }
                if (out(7) != out(0)) fail("the mix is not the one stem that sounds");
                if (!(std::fabs(out(6) + out(7) - in) <= kStreamSumTolerance)) {
                    fail("residual + mix " + std::to_string(out(6) + out(7)) + " for " + std::to_string(in));
                }
            }
        }
    }

    std::optional<TonwerkProc> proc_;
    unsigned stems_;
    bool interleaved_;
    std::int32_t channels_;
    std::size_t streamStart_;
    std::size_t sent_ = 0;
    std::size_t returned_ = 0;
    bool restarted_ = false;
};

}  // namespace tonwerk::test
