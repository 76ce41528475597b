// Streams through band_split.onnx, whose six outputs keep disjoint bands of
// frequency bins (vocals 0-63, drum 64-255, piano 256-511, acoustic guitar
// 512-1023, electric guitar 1024-1535, bass 1536-2047; bin = 10.77 Hz) and sum
// to the input. A signal with one partial well inside each band makes every
// stem a known sine, so stem order, the stem switches and residual/mix are
// all visible in the output.
#include "proc_stream_support.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace tonwerk_test {
namespace {

constexpr std::size_t kFrames = 24000;
constexpr std::size_t kEdge = 4096;
// Inside the stream a stem differs from its band's partial only by the
// other partials' window leakage into its band and by rounding (measured
// <= 1.8e-7).
constexpr double kStemTolerance = 1e-6;
// The six bands add up to the whole spectrum, so the residual is the round
// trip error: rounding inside, more next to the mirrored padding at
// the stream's ends (whose kink carries a Nyquist component that the
// forward transform drops; measured 3.7e-5 there).
constexpr double kResidualInteriorTolerance = 1e-6;
constexpr double kResidualEdgeTolerance = 1e-4;

// One partial per band, in output order, centred well away from band edges.
const std::array<double, 6> kBandHz{300.0, 1500.0, 4000.0, 8000.0, 13500.0, 19000.0};

Stereo bandPartial(std::size_t stem, std::size_t frames) {
    const double amplitude = 0.1 + 0.01 * static_cast<double>(stem);
    return {sines(frames, {{kBandHz[stem], amplitude, 0.3 * static_cast<double>(stem)}}),
            sines(frames, {{kBandHz[stem], 0.8 * amplitude, 1.0 + 0.5 * static_cast<double>(stem)}})};
}

Stereo sixBandSignal(std::size_t frames) {
    Stereo signal{std::vector<float>(frames, 0.0F), std::vector<float>(frames, 0.0F)};
    for (std::size_t s = 0; s < 6; ++s) {
        signal = sum(signal, bandPartial(s, frames));
    }
    return signal;
}

void expectInteriorNear(const Stereo& actual, const Stereo& expected, double tolerance, const std::string& what) {
    for (std::size_t i = kEdge; i + kEdge < expected.frames(); ++i) {
        ASSERT_NEAR(actual.left[i], expected.left[i], tolerance) << what << ", channel 0, frame " << i;
        ASSERT_NEAR(actual.right[i], expected.right[i], tolerance) << what << ", channel 1, frame " << i;
    }
}

class BandSplitSelection : public ::testing::TestWithParam<unsigned> {};

TEST_P(BandSplitSelection, SelectedStemsCarryTheirBandAndTheRestIsSilent) {
    const unsigned bits = GetParam();
    const Stereo signal = sixBandSignal(kFrames);
    tonwerk::TonwerkProc proc(loadContext("band_split.onnx"), makeConfig(false, bits));
    const StreamOutput out = runInBlocksOf(proc, signal, kFrames, false);
    ASSERT_EQ(out.frames(), kFrames);

    Stereo expectedMix{std::vector<float>(kFrames, 0.0F), std::vector<float>(kFrames, 0.0F)};
    for (std::size_t s = 0; s < 6; ++s) {
        if ((bits >> s) & 1u) {
            const Stereo partial = bandPartial(s, kFrames);
            expectInteriorNear(out.stems[s], partial, kStemTolerance, "stem " + std::to_string(s));
            expectedMix = sum(expectedMix, partial);
        } else {
            EXPECT_TRUE(allZero(out.stems[s])) << "unselected stem " << s << " must be exactly silent";
        }
    }
    expectInteriorNear(out.stems[kMix], expectedMix, 6 * kStemTolerance, "mix");
    const Deviation restored = deviation(sum(out.stems[kResidual], out.stems[kMix]), signal);
    EXPECT_LE(restored.max, 2.5e-7) << "residual + mix differs from the mixture at frame " << restored.at;
}

// All, none, a scattered choice, and bass alone / everything but bass: bass
// is the last configuration bit but the third model flag.
INSTANTIATE_TEST_SUITE_P(StemBits, BandSplitSelection, ::testing::Values(0x3Fu, 0x00u, 0x25u, 0x20u, 0x1Fu),
                         [](const ::testing::TestParamInfo<unsigned>& info) {
                             return "bits_" + std::to_string(info.param);
                         });

TEST(BandSplit, StemsSumBackToTheMixtureSoTheResidualVanishes) {
    const Stereo signal = bandLimitedSignal(kFrames);
    tonwerk::TonwerkProc proc(loadContext("band_split.onnx"), makeConfig(true));
    const StreamOutput out = runInBlocksOf(proc, signal, 5000);
    ASSERT_EQ(out.frames(), kFrames);
    for (std::size_t i = 0; i < kFrames; ++i) {
        const double tolerance =
            (i < kEdge || i + kEdge >= kFrames) ? kResidualEdgeTolerance : kResidualInteriorTolerance;
        ASSERT_NEAR(out.stems[kResidual].left[i], 0.0, tolerance) << "channel 0, frame " << i;
        ASSERT_NEAR(out.stems[kResidual].right[i], 0.0, tolerance) << "channel 1, frame " << i;
    }
}

}  // namespace
}  // namespace tonwerk_test
