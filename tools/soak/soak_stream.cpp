#include "soak_stream.h"

#include "common/stem_bits.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tonwerk::soak {

namespace {

constexpr std::size_t kOutputs = 8;
constexpr std::size_t kVocals = 0;
constexpr std::size_t kResidual = 6;
constexpr std::size_t kMix = 7;
// The identity round trip is exact up to single-precision rounding inside a
// stream (3e-7 seen). Within a frame of either end the frames also cover the
// mirrored padding, whose kink has a Nyquist component the forward transform
// drops: it grows with the tones' level and pitch, up to 3.2e-4 seen in 132
// random streams of tones to 16 kHz. residual + mix: one subtraction and one
// addition of values below 1.
constexpr double kInteriorTolerance = 1e-6;
constexpr double kEdgeTolerance = 1e-3;
constexpr std::size_t kEdgeFrames = 4096;
constexpr double kSumTolerance = 2.5e-7;

std::size_t logUniform(std::mt19937_64& random, std::size_t most) {
    std::uniform_real_distribution<double> exponent(0.0, std::log(static_cast<double>(most) + 1.0));
    return std::clamp<std::size_t>(static_cast<std::size_t>(std::exp(exponent(random))), 1, most);
}

bool oneIn(std::mt19937_64& random, unsigned n) { return std::uniform_int_distribution<unsigned>(1, n)(random) == 1; }

}  // namespace

SoakStream::SoakStream(std::shared_ptr<InferenceContext> context, std::size_t maxFrames, std::mt19937_64& random)
    : length(oneIn(random, 64) ? 0 : logUniform(random, maxFrames)),
      interleaved(oneIn(random, 2)),
      stems(std::uniform_int_distribution<unsigned>(0, 63)(random)),
      proc(std::move(context), tools::configForStemBits(stems, interleaved)),
      tones(random) {}

std::string SoakStream::describe() const {
    char text[160];
    std::snprintf(text, sizeof text, "a stream of %zu frames (%s, stems 0x%02x) at frame %zu of its output",
                  length, interleaved ? "interleaved" : "planar", stems, returned);
    return text;
}

// Mostly host-sized blocks, some as large as the processor takes, and now
// and then a run of single frames.
std::size_t SoakStream::nextBlockFrames(std::mt19937_64& random) {
    const std::size_t left = length - sent;
    if (singleFramesLeft == 0 && oneIn(random, 50)) singleFramesLeft = logUniform(random, 64);
    if (singleFramesLeft > 0) {
        --singleFramesLeft;
        return std::min<std::size_t>(1, left);
    }
    const std::size_t most = proc.maxInputSize();
    const unsigned kind = std::uniform_int_distribution<unsigned>(0, 99)(random);
    std::size_t frames = most;
    if (kind < 60) {
        frames = std::uniform_int_distribution<std::size_t>(1, 4096)(random);
    } else if (kind < 98) {
        frames = logUniform(random, most);
    }
    return std::min(frames, left);
}

bool SoakStream::step(std::mt19937_64& random) {
    const std::size_t frames = nextBlockFrames(random);
    // The last frames go with eof, or now and then eof follows in an empty call of its own.
    const bool last = sent + frames == length;
    const bool eof = last && (frames == 0 || !oneIn(random, 4));
    hostBlock(frames);
    sent += frames;
    ++counts_.calls;
    counts_.frames += frames;
    check(proc.process(block, eof));
    if (!eof) return true;
    if (returned != length) {
        throw Mismatch(describe() + ": the stream ended after " + std::to_string(returned) + " frames came back");
    }
    return false;
}

void SoakStream::hostBlock(std::size_t frames) {
    block.resize(2 * frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const auto frame = tones.next();
        pending.push_back(frame);
        block[interleaved ? 2 * i : i] = frame[0];
        block[interleaved ? 2 * i + 1 : frames + i] = frame[1];
    }
}

void SoakStream::check(const std::vector<std::vector<float>>& result) {
    if (result.empty()) return;
    if (result.size() != kOutputs) throw Mismatch(describe() + ": " + std::to_string(result.size()) + " outputs");
    const std::size_t n = result[0].size() / 2;
    for (const auto& output : result) {
        if (output.size() != 2 * n) throw Mismatch(describe() + ": outputs of different lengths");
    }
    if (n > pending.size()) throw Mismatch(describe() + ": more frames came back than went in");
    std::array<std::array<float, 2>, kOutputs> out{};
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t s = 0; s < kOutputs; ++s) {
            out[s] = interleaved ? std::array<float, 2>{result[s][2 * i], result[s][2 * i + 1]}
                                 : std::array<float, 2>{result[s][i], result[s][n + i]};
        }
        checkFrame(returned, pending.front(), out);
        pending.pop_front();
        ++returned;
    }
}

void SoakStream::checkFrame(std::size_t frame, const std::array<float, 2>& in,
                            const std::array<std::array<float, 2>, kOutputs>& out) const {
    const bool edge = frame < kEdgeFrames || frame + kEdgeFrames >= length;
    const double tolerance = edge ? kEdgeTolerance : kInteriorTolerance;
    for (std::size_t c = 0; c < 2; ++c) {
        const float vocals = (stems & 1u) ? in[c] : 0.0F;
        if (std::fabs(out[kVocals][c] - vocals) > tolerance) {
            throw Mismatch(describe() + ": vocals " + std::to_string(out[kVocals][c]) + " for " +
                           std::to_string(vocals));
        }
        for (std::size_t s = 1; s < kResidual; ++s) {
            if (out[s][c] != 0.0F) throw Mismatch(describe() + ": stem " + std::to_string(s) + " is not silent");
        }
        if (std::fabs(out[kResidual][c] + out[kMix][c] - in[c]) > kSumTolerance) {
            throw Mismatch(describe() + ": residual + mix do not restore the input");
        }
    }
}

}  // namespace tonwerk::soak
