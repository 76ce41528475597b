// Bit-exact regression guard: whole streams through models whose outputs are
// exact functions of their input (bin slices, gains, copies), in several block
// schedules, layouts and stem choices, must give exactly the bits they gave
// when these hashes were recorded. Any change to the arithmetic of the
// pipeline (order of operations, a skipped step) shows here; a change that is
// meant to alter results must update the hashes and say why.
#include "proc_stream_support.h"

#include <cstdint>

namespace tonwerk_test {
namespace {

// FNV-1a over the bytes of every output of every call, and each output's size, in order.
void hashInto(std::uint64_t& hash, const std::vector<std::vector<float>>& result) {
    for (const auto& output : result) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(output.data());
        for (std::size_t b = 0; b < output.size() * sizeof(float); ++b) hash = (hash ^ bytes[b]) * 0x100000001B3ULL;
        hash = (hash ^ output.size()) * 0x100000001B3ULL;
    }
}

// Tones across the whole band, a transient and a stretch of silence, so that
// stems of every band carry sound, and silent frames occur.
Stereo goldenSignal(std::size_t frames) {
    Stereo s = bandLimitedSignal(frames);
    s = sum(s, {sines(frames, {{19000.0, 0.05, 0.2}, {900.0, 0.1, 0.0}}), sines(frames, {{60.0, 0.2, 0.0}})});
    for (std::size_t i = 300000; i < 360000 && i < frames; ++i) s.left[i] = s.right[i] = 0.0F;
    s.left[123457] = 0.9F;
    return s;
}

TEST(GoldenStreams, EveryOutputBitIsAsRecorded) {
    const Stereo signal = goldenSignal(600000);
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
        tonwerk::TonwerkProc proc(loadContext(g.model), makeConfig(g.interleaved, g.stems));
        std::uint64_t hash = 0xCBF29CE484222325ULL;
        for (std::size_t call = 0, at = 0; at < signal.frames(); ++call) {
            const std::size_t n = std::min(g.blocks[call % g.blocks.size()], signal.frames() - at);
            const auto input = block(signal, at, n, g.interleaved);
            at += n;
            hashInto(hash, proc.process(input, at == signal.frames()));
        }
#if defined(_WIN32)
        EXPECT_EQ(hash, g.onWindows) << g.model << " stems " << g.stems;
#else
        EXPECT_EQ(hash, g.onLinux) << g.model << " stems " << g.stems;
#endif
    }
}

}  // namespace
}  // namespace tonwerk_test
