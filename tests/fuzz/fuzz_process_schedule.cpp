// libFuzzer target: the fuzzer's bytes choose a processor's layout, channel
// count and stems and a schedule of process() calls (block sizes from 0 to
// beyond the input buffer, ends of stream, malformed blocks) over a short
// stream through the identity model. Checked on every input:
// - every result is empty or eight stereo vectors of one length;
// - a block of at most maxInputSize() frames is accepted, one larger than
//   the buffer is refused with "Buffer overflow: cannot accept chunk of size
//   N", and a refused or malformed block changes nothing;
// - every stream, ended with eof, comes back exactly as long as what was
//   accepted, residual + mix give back the input, and in the first stream the
//   vocals do too (the identity model's vocals are its input).
#include "common/stem_bits.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBufferFrames = 514048;
constexpr std::size_t kMaxStreamFrames = 320000;  // one model run and a flush: keeps an input quick
constexpr std::size_t kEdge = 4096;
// The windowed round trip is exact up to single-precision rounding inside a
// stream. Within a frame of either end the frames also cover the mirrored
// padding, whose kink has a Nyquist component the forward transform drops;
// in a stream shorter than a frame both ends share their frames (2.8e-4 seen
// for 107 frames). residual + mix: one subtraction and one addition.
constexpr double kInteriorTolerance = 1e-6;
constexpr double kEdgeTolerance = 1e-3;
constexpr double kSumTolerance = 2.5e-7;

[[noreturn]] void broken(const std::string& what) {
    std::fprintf(stderr, "process schedule: %s\n", what.c_str());
    std::abort();
}

std::shared_ptr<tonwerk::InferenceContext> identityContext() {
    static const std::shared_ptr<tonwerk::InferenceContext> context = [] {
        std::ifstream file(TONWERK_FUZZ_MODELS_DIR "/identity.onnx", std::ios::binary);
        const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(file), {}};
        if (bytes.empty()) broken("identity.onnx not found in " TONWERK_FUZZ_MODELS_DIR);
        return std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{bytes.data(), bytes.size(), ""});
    }();
    return context;
}

// Band-limited stereo (sines below 16 kHz, peak below 0.75), one table for
// every input: frame f of channel c.
float sample(std::size_t frame, std::size_t channel) {
    static const std::vector<float> table = [] {
        std::vector<float> t(2 * (kMaxStreamFrames + kBufferFrames + 1001));  // the largest block the schedule makes
        for (std::size_t f = 0; f < t.size() / 2; ++f) {
            const double x = 2.0 * 3.141592653589793 * static_cast<double>(f) / 44100.0;
            t[2 * f] = static_cast<float>(0.4 * std::sin(220.0 * x) + 0.2 * std::sin(3100.7 * x + 0.5));
            t[2 * f + 1] = static_cast<float>(0.35 * std::sin(331.0 * x + 1.0) + 0.2 * std::sin(12345.6 * x + 2.0));
        }
        return t;
    }();
    return table[2 * frame + channel];
}

struct Layout {
    bool interleaved;
    std::int32_t channels;
    bool valid() const { return channels != 0 && !(interleaved && channels == 1); }
};

// One block of n frames, frames [from, from + n) of the signal. Interleaved
// blocks hold channels x n floats, of which the processor reads the first 2n
// as stereo pairs whatever the channel count; the rest hold garbage that must
// not reach the output. Planar blocks are channel 0 then channel 1.
std::vector<float> hostBlock(const Layout& layout, std::size_t from, std::size_t n) {
    const std::size_t floats = layout.interleaved ? static_cast<std::size_t>(std::max(layout.channels, 2)) * n : 2 * n;
    std::vector<float> block(floats, 1e30F);
    for (std::size_t i = 0; i < n; ++i) {
        block[layout.interleaved ? 2 * i : i] = sample(from + i, 0);
        block[layout.interleaved ? 2 * i + 1 : n + i] = sample(from + i, 1);
    }
    return block;
}

class Stream {
public:
    Stream(const Layout& layout, unsigned stems) : layout_(layout), vocals_(stems & 1u) {
        proc_ = std::make_unique<tonwerk::TonwerkProc>(
            identityContext(), tonwerk::tools::configForStemBits(stems, layout.interleaved, layout.channels));
    }

    std::size_t accepted() const { return accepted_; }
    std::size_t maxInputSize() const { return proc_->maxInputSize(); }

    void call(std::size_t frames, bool eof) {
        const std::size_t limit = proc_->maxInputSize();
        const std::vector<float> block = hostBlock(layout_, accepted_, frames);
        std::vector<std::vector<float>> result;
        try {
            result = proc_->process(block, eof);
        } catch (const std::invalid_argument& e) {
            if (layout_.valid()) broken(std::string("valid block refused: ") + e.what());
            return;
        } catch (const std::runtime_error& e) {
            const std::string expected = "Buffer overflow: cannot accept chunk of size " + std::to_string(frames);
            if (e.what() != expected) broken(std::string("unexpected error: ") + e.what());
            if (frames <= limit) broken("a block of maxInputSize() frames or fewer was refused: " + expected);
            return;
        }
        if (!layout_.valid()) broken("a layout that cannot be split into frames was accepted");
        if (frames > kBufferFrames) broken("a block larger than the input buffer was accepted");
        accepted_ += frames;
        collect(result);
        if (eof) endOfStream();
    }

    // A planar block of an odd number of floats: refused, nothing changes.
    void callMalformed(std::size_t frames) {
        if (layout_.interleaved || !layout_.valid()) return;
        std::vector<float> block = hostBlock(layout_, accepted_, frames);
        block.push_back(0.0F);
        try {
            proc_->process(block, false);
        } catch (const std::invalid_argument&) {
            return;
        }
        broken("an odd planar block was accepted");
    }

    void finish() {
        if (layout_.valid() && accepted_ > streamStart_) call(0, true);
    }

private:
    std::string describe() const {
        return std::string(layout_.interleaved ? "interleaved" : "planar") + " with channels " +
               std::to_string(layout_.channels) + ", stream from frame " + std::to_string(streamStart_);
    }

    void collect(const std::vector<std::vector<float>>& result) {
        if (result.empty()) return;
        if (result.size() != 8) broken("result holds " + std::to_string(result.size()) + " vectors");
        for (const auto& stem : result) {
            if (stem.size() != result[0].size() || stem.size() % 2 != 0) broken("stems of different or odd lengths");
        }
        const std::size_t n = result[0].size() / 2;
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t c = 0; c < 2; ++c) {
                const std::size_t at = layout_.interleaved ? 2 * i + c : c * n + i;
                vocals_out_.push_back(result[0][at]);
                restored_.push_back(result[6][at] + result[7][at]);
            }
        }
    }

    // The stream since the last eof (or the start) against the input.
    void endOfStream() {
        const std::size_t frames = accepted_ - streamStart_;
        if (restored_.size() != 2 * frames) {
            broken("stream of " + std::to_string(frames) + " frames came back as " +
                   std::to_string(restored_.size() / 2));
        }
        for (std::size_t i = 0; i < frames; ++i) {
            const bool edge = i < kEdge || i + kEdge >= frames;
            for (std::size_t c = 0; c < 2; ++c) {
                const float expected = sample(streamStart_ + i, c);
                const std::string where = " for " + std::to_string(expected) + " at frame " + std::to_string(i) +
                                          " of " + std::to_string(frames);
                if (std::fabs(restored_[2 * i + c] - expected) > kSumTolerance) {
                    broken(describe() + ": residual + mix " + std::to_string(restored_[2 * i + c]) + where);
                }
                const bool checkVocals = vocals_ && streamStart_ == 0;
                const double tolerance = edge ? kEdgeTolerance : kInteriorTolerance;
                if (checkVocals && std::fabs(vocals_out_[2 * i + c] - expected) > tolerance) {
                    broken(describe() + ": vocals " + std::to_string(vocals_out_[2 * i + c]) + where);
                }
            }
        }
        streamStart_ = accepted_;
        restored_.clear();
        vocals_out_.clear();
    }

    Layout layout_;
    bool vocals_;
    std::unique_ptr<tonwerk::TonwerkProc> proc_;
    std::size_t accepted_ = 0;
    std::size_t streamStart_ = 0;
    std::vector<float> vocals_out_;
    std::vector<float> restored_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const Layout layout{input.ConsumeBool(), input.ConsumeIntegralInRange<std::int32_t>(0, 4)};
    Stream stream(layout, input.ConsumeIntegralInRange<unsigned>(0, 63));
    while (input.remaining_bytes() > 0 && stream.accepted() < kMaxStreamFrames) {
        const std::size_t limit = stream.maxInputSize();
        const std::size_t budget = kMaxStreamFrames - stream.accepted();
        switch (input.ConsumeIntegralInRange(0, 7)) {
            case 0: stream.call(0, false); break;
            case 1: stream.call(std::min(budget, input.ConsumeIntegralInRange<std::size_t>(1, 64)), false); break;
            case 2: stream.call(std::min(budget, input.ConsumeIntegralInRange<std::size_t>(1, 5000)), false); break;
            case 3: stream.call(std::min(budget, limit), false); break;
            // May or may not fit, depending on what is held.
            case 4: stream.call(input.ConsumeIntegralInRange<std::size_t>(limit + 1, kBufferFrames), false); break;
            case 5: stream.call(kBufferFrames + input.ConsumeIntegralInRange<std::size_t>(1, 1000), false); break;
            case 6: stream.call(std::min(budget, input.ConsumeIntegralInRange<std::size_t>(0, 5000)), true); break;
            default: stream.callMalformed(input.ConsumeIntegralInRange<std::size_t>(0, 100)); break;
        }
    }
    stream.finish();
    return 0;
}
