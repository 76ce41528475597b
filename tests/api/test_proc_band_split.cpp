// Streams through band_split.onnx, whose six outputs keep disjoint bands of
// frequency bins (vocals 0-63, drum 64-255, piano 256-511, acoustic guitar
// 512-1023, electric guitar 1024-1535, bass 1536-2047; bin = 10.77 Hz) and sum
// to the input. One partial well inside each band makes every stem a known
// sine, so stem order, the stem switches and residual/mix all show.
#include "proc_stream_support.h"

namespace tonwerk_test {
namespace {

constexpr std::size_t kFrames = 24000;
// Inside the stream a stem differs from its partial only by the other
// partials' window leakage and rounding (measured <= 1.8e-7).
constexpr double kStemTolerance = 1e-6;
const std::array<double, 6> kBandHz{300.0, 1500.0, 4000.0, 8000.0, 13500.0, 19000.0};

Stereo bandPartial(std::size_t stem) {
    const double s = static_cast<double>(stem), amplitude = 0.1 + 0.01 * s;
    return {sines(kFrames, {{kBandHz[stem], amplitude, 0.3 * s}}),
            sines(kFrames, {{kBandHz[stem], 0.8 * amplitude, 1.0 + 0.5 * s}})};
}

// All, none, a scattered choice, and bass alone / everything but bass: bass
// is the last configuration bit but the third model flag. With all stems the
// bands add up to the whole spectrum, so the residual is the round-trip error
// (near the ends more, as the partial at 19 kHz meets the mirrored padding).
TEST(BandSplit, SelectedStemsCarryTheirBandAndTheRestIsSilent) {
    const Stereo silence{std::vector<float>(kFrames, 0.0F), std::vector<float>(kFrames, 0.0F)};
    Stereo signal = silence;
    for (std::size_t s = 0; s < 6; ++s) signal = sum(signal, bandPartial(s));
    using Tolerance = std::function<double(std::size_t)>;
    const auto interior = [](double tolerance) -> Tolerance {
        return [tolerance](std::size_t i) { return edgeOrInterior(i, kFrames, 1e9, tolerance); };
    };
    const Tolerance exact = [](std::size_t) { return 0.0; };
    for (const unsigned bits : {0x3Fu, 0x00u, 0x25u, 0x20u, 0x1Fu}) {
        SCOPED_TRACE("stem bits " + std::to_string(bits));
        tonwerk::TonwerkProc proc(loadContext("band_split.onnx"), makeConfig(bits % 2 == 0, bits));
        const StreamOutput out = runInBlocksOf(proc, signal, bits == 0x3F ? 5000 : kFrames, bits % 2 == 0);
        ASSERT_EQ(out.frames(), kFrames);
        Stereo expectedMix = silence;
        for (std::size_t s = 0; s < 6; ++s) {
            const bool selected = (bits >> s) & 1u;
            expectNear(out.stems[s], selected ? bandPartial(s) : silence,
                       selected ? interior(kStemTolerance) : exact,
                       "stem " + std::to_string(s));
            if (selected) expectedMix = sum(expectedMix, bandPartial(s));
        }
        expectNear(out.stems[kMix], expectedMix, interior(6 * kStemTolerance), "mix");
        expectNear(sum(out.stems[kResidual], out.stems[kMix]), signal,
                   [](std::size_t) { return tonwerk::test::kStreamSumTolerance; }, "residual + mix");
        if (bits == 0x3F) {
            expectNear(out.stems[kResidual], silence, interior(tonwerk::test::kStreamInteriorTolerance), "residual");
        }
    }
}

}  // namespace
}  // namespace tonwerk_test
