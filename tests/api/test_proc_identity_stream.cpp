// Whole streams through the identity model (vocals = input, other stems
// silent): whatever the host's block sizes, the vocals stem must give back
// the input sample for sample, with nothing lost or shifted at chunk seams.
#include "proc_stream_support.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace tonwerk_test {
namespace {

// The round trip windowed FFT -> inverse -> overlap-add in single precision
// is exact up to rounding inside the stream (measured <= 2.4e-7). Within one
// frame (4096 samples) of either end the frames also cover the mirrored
// padding, whose kink has a Nyquist component that the forward transform
// drops; with this signal's 15.5 kHz partial that costs up to 6e-5 there.
constexpr double kInteriorTolerance = 1e-6;
constexpr double kEdgeTolerance = 1e-4;
constexpr std::size_t kEdge = 4096;
// residual + mix against the mixture: one single-precision subtraction and
// addition of values below 1.
constexpr double kSumTolerance = 2.5e-7;

struct StreamCase {
    std::string name;
    std::size_t frames;
    std::vector<std::size_t> blocks;  // cycled; empty: maxInputSize() each call
};

std::ostream& operator<<(std::ostream& os, const StreamCase& c) { return os << c.name; }

void expectIdentityStream(const Stereo& signal, const StreamOutput& out) {
    ASSERT_EQ(out.frames(), signal.frames()) << "output length differs from input length";
    const std::size_t n = signal.frames();
    for (std::size_t i = 0; i < n; ++i) {
        const double tolerance = (i < kEdge || i + kEdge >= n) ? kEdgeTolerance : kInteriorTolerance;
        ASSERT_NEAR(out.stems[0].left[i], signal.left[i], tolerance) << "vocals, channel 0, frame " << i;
        ASSERT_NEAR(out.stems[0].right[i], signal.right[i], tolerance) << "vocals, channel 1, frame " << i;
    }
    for (std::size_t s = 1; s < 6; ++s) {
        EXPECT_TRUE(allZero(out.stems[s])) << "stem " << s << " should be silent";
    }
    EXPECT_EQ(out.stems[kMix].left, out.stems[0].left) << "mix of one non-silent stem is that stem";
    EXPECT_EQ(out.stems[kMix].right, out.stems[0].right);
    const Deviation restored = deviation(sum(out.stems[kResidual], out.stems[kMix]), signal);
    EXPECT_LE(restored.max, kSumTolerance) << "residual + mix differs from the mixture at frame " << restored.at;
}

class IdentityStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(IdentityStream, VocalsReproduceTheInputAndLengthsMatch) {
    const StreamCase& c = GetParam();
    const Stereo signal = bandLimitedSignal(c.frames);
    tonwerk::TonwerkProc proc(loadContext("identity.onnx"), makeConfig(true));
    const StreamOutput out =
        runStream(proc, signal, true, [&c](std::size_t call, const tonwerk::TonwerkProc& p) -> std::size_t {
            return c.blocks.empty() ? p.maxInputSize() : c.blocks[call % c.blocks.size()];
        });
    expectIdentityStream(signal, out);
}

// 531441 frames make every host pattern cross two chunk seams before the
// end-of-stream flush. Single-call streams cover a flush that fits one model
// run (1000, 257024) and ones that do not (257025, 300000, and 600000 handed
// over in blocks of 254976, which leaves 342976 frames for the flush).
INSTANTIATE_TEST_SUITE_P(
    HostBlocks, IdentityStream,
    ::testing::Values(StreamCase{"blocks_64", 531441, {64}}, StreamCase{"blocks_512", 531441, {512}},
                      StreamCase{"blocks_1000", 531441, {1000}}, StreamCase{"blocks_1024", 531441, {1024}},
                      StreamCase{"blocks_4096", 531441, {4096}}, StreamCase{"blocks_5000", 531441, {5000}},
                      StreamCase{"blocks_44100", 531441, {44100}}, StreamCase{"blocks_maxInputSize", 531441, {}},
                      StreamCase{"blocks_odd_mix", 531441, {1, 777, 4095, 12345, 3, 513, 2047}},
                      StreamCase{"single_call_1000", 1000, {1000}},
                      StreamCase{"single_call_257024", 257024, {257024}},
                      StreamCase{"single_call_257025", 257025, {257025}},
                      StreamCase{"single_call_300000", 300000, {300000}},
                      StreamCase{"blocks_254976_of_600000", 600000, {254976}}),
    [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

}  // namespace
}  // namespace tonwerk_test
