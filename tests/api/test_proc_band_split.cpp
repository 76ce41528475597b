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

// Frames at least one frame away from the stream's ends only.
double interior(std::size_t i, double tolerance) { return (i < kEdge || i + kEdge >= kFrames) ? 1e9 : tolerance; }

class BandSplitSelection : public ::testing::TestWithParam<unsigned> {};

TEST_P(BandSplitSelection, SelectedStemsCarryTheirBandAndTheRestIsSilent) {
    const unsigned bits = GetParam();
    Stereo signal{std::vector<float>(kFrames, 0.0F), std::vector<float>(kFrames, 0.0F)};
    for (std::size_t s = 0; s < 6; ++s) signal = sum(signal, bandPartial(s));
    tonwerk::TonwerkProc proc(loadContext("band_split.onnx"), makeConfig(false, bits));
    const StreamOutput out = runInBlocksOf(proc, signal, kFrames, false);
    ASSERT_EQ(out.frames(), kFrames);

    Stereo expectedMix{std::vector<float>(kFrames, 0.0F), std::vector<float>(kFrames, 0.0F)};
    for (std::size_t s = 0; s < 6; ++s) {
        if ((bits >> s) & 1u) {
            expectNear(out.stems[s], bandPartial(s), [](std::size_t i) { return interior(i, kStemTolerance); },
                       "stem " + std::to_string(s));
            expectedMix = sum(expectedMix, bandPartial(s));
        } else {
            EXPECT_TRUE(allZero(out.stems[s])) << "unselected stem " << s << " must be exactly silent";
        }
    }
    expectNear(out.stems[kMix], expectedMix, [](std::size_t i) { return interior(i, 6 * kStemTolerance); }, "mix");
    expectNear(sum(out.stems[kResidual], out.stems[kMix]), signal, [](std::size_t) { return kSumTolerance; },
               "residual + mix");
}

// All, none, a scattered choice, and bass alone / everything but bass: bass
// is the last configuration bit but the third model flag.
INSTANTIATE_TEST_SUITE_P(StemBits, BandSplitSelection, ::testing::Values(0x3Fu, 0x00u, 0x25u, 0x20u, 0x1Fu),
                         [](const ::testing::TestParamInfo<unsigned>& info) {
                             return "bits_" + std::to_string(info.param);
                         });

// The bands add up to the whole spectrum, so the residual is the round-trip
// error: rounding inside, more next to the mirrored padding (see kEdgeTolerance).
TEST(BandSplit, StemsSumBackToTheMixtureSoTheResidualVanishes) {
    const Stereo signal = bandLimitedSignal(kFrames);
    tonwerk::TonwerkProc proc(loadContext("band_split.onnx"), makeConfig(true));
    const StreamOutput out = runInBlocksOf(proc, signal, 5000);
    const Stereo silence{std::vector<float>(kFrames, 0.0F), std::vector<float>(kFrames, 0.0F)};
    expectNear(out.stems[kResidual], silence,
               [](std::size_t i) { return (i < kEdge || i + kEdge >= kFrames) ? kEdgeTolerance : kInteriorTolerance; },
               "residual");
}

}  // namespace
}  // namespace tonwerk_test
