// Bit-exact regression guard: whole streams through models whose outputs are
// exact functions of their input (bin slices, gains, copies), in several block
// schedules, layouts and stem choices, must give exactly the bits they gave
// when these hashes were recorded. Any change to the arithmetic of the
// pipeline (order of operations, a skipped step, a stem in the wrong place)
// shows here; a change that is meant to alter results must update the hashes
// and say why. band_split.onnx keeps disjoint bands of bins per stem, gains.onnx
// scales the input by 1 to 6 in stem order.
#include "identity_stream_check.h"
#include "test_support.h"

#include <array>
#include <cstdint>

namespace tonwerk::test {
namespace {

// FNV-1a over the bytes of every output of every call, and each output's size, in order.
void hashInto(std::uint64_t& hash, const std::vector<std::vector<float>>& result) {
    for (const auto& output : result) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(output.data());
        for (std::size_t b = 0; b < output.size() * sizeof(float); ++b) hash = (hash ^ bytes[b]) * 0x100000001B3ULL;
        hash = (hash ^ output.size()) * 0x100000001B3ULL;
    }
}

// Sum of sines {hz, amplitude, phase} at 44.1 kHz.
std::vector<float> sines(std::size_t frames, const std::vector<std::array<double, 3>>& partials) {
    std::vector<float> out(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        double v = 0.0;
        for (const auto& p : partials) v += p[1] * std::sin(2.0 * kPi * p[0] * i / 44100.0 + p[2]);
        out[i] = static_cast<float>(v);
    }
    return out;
}

// Interleaved stereo: tones across the whole band, a transient and a stretch
// of silence, so that stems of every band carry sound, and silent frames occur.
std::vector<float> goldenSignal(std::size_t frames) {
    const std::vector<float> parts[2][2] = {
        {sines(frames, {{220.0, 0.4, 0.0}, {3100.7, 0.2, 0.5}, {15500.0, 0.1, 1.0}}),
         sines(frames, {{19000.0, 0.05, 0.2}, {900.0, 0.1, 0.0}})},
        {sines(frames, {{331.0, 0.35, 1.0}, {7000.0, 0.2, 0.0}, {12345.6, 0.15, 2.0}}),
         sines(frames, {{60.0, 0.2, 0.0}})}};
    std::vector<float> s(2 * frames);
    for (std::size_t i = 0; i < 2 * frames; ++i) {
        const bool silent = i / 2 >= 300000 && i / 2 < 360000;
        s[i] = silent ? 0.0F : parts[i % 2][0][i / 2] + parts[i % 2][1][i / 2];
    }
    s[2 * 123457] = 0.9F;
    return s;
}

TEST(GoldenStreams, EveryOutputBitIsAsRecorded) {
    constexpr std::size_t kFrames = 600000;
    const std::vector<float> signal = goldenSignal(kFrames);
    // The C libraries' sine and cosine (test signal, window) differ in the
    // last bit between the two platforms, so each has its own record.
    const struct {
        const char* model;
        unsigned stems;
        bool interleaved;
        std::vector<std::size_t> blocks;  // cycled
        std::uint64_t onLinux, onWindows;
    } streams[] = {
        {"band_split.onnx", kAllStems, true, {4096}, 4247991507489791787ULL, 9396749402312317225ULL},
        {"band_split.onnx", 0x25, false, {1, 777, 30000, 123456, 4096}, 9666380569340437380ULL,
         12588333861581773608ULL},
        {"gains.onnx", kAllStems, true, {254976}, 7266341421216058821ULL, 7278051675620153855ULL},
        {"gains.onnx", 0x08, true, {1024, 100000}, 6034706657388793188ULL, 16756055399641732499ULL},
        {"identity.onnx", kAllStems, false, {1024}, 13993569576661167403ULL, 2087860355478519551ULL},
    };
    for (const auto& g : streams) {
        TonwerkProc proc(loadContext(g.model), tools::configForStemBits(g.stems, g.interleaved));
        std::uint64_t hash = 0xCBF29CE484222325ULL;
        for (std::size_t call = 0, at = 0; at < kFrames; ++call) {
            const std::size_t n = std::min(g.blocks[call % g.blocks.size()], kFrames - at);
            const std::vector<float> frames(signal.begin() + 2 * at, signal.begin() + 2 * (at + n));
            const auto input = g.interleaved ? frames : toPlanar(frames);
            at += n;
            hashInto(hash, proc.process(input, at == kFrames));
        }
#if defined(_WIN32)
        EXPECT_EQ(hash, g.onWindows) << g.model << " stems " << g.stems;
#else
        EXPECT_EQ(hash, g.onLinux) << g.model << " stems " << g.stems;
#endif
    }
}

}  // namespace
}  // namespace tonwerk::test
