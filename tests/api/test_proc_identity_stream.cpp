// Whole streams through the identity model (vocals = input, other stems
// silent): whatever the host's block sizes, the vocals stem must give back
// the input sample for sample, with nothing lost or shifted at chunk seams.
#include "proc_stream_support.h"

#include <ostream>

namespace tonwerk_test {
namespace {

struct StreamCase {
    std::string name;
    std::size_t frames;
    std::vector<std::size_t> blocks;  // cycled; empty: maxInputSize() each call
};

std::ostream& operator<<(std::ostream& os, const StreamCase& c) { return os << c.name; }

class IdentityStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(IdentityStream, VocalsReproduceTheInputAndLengthsMatch) {
    const StreamCase& c = GetParam();
    const Stereo signal = bandLimitedSignal(c.frames);
    tonwerk::TonwerkProc proc(loadContext("identity.onnx"), makeConfig(true));
    const StreamOutput out = runStream(proc, signal, true, [&c](std::size_t call, const tonwerk::TonwerkProc& p) {
        return c.blocks.empty() ? p.maxInputSize() : c.blocks[call % c.blocks.size()];
    });
    expectIdentityOutput(out, signal);
    for (std::size_t s = 1; s < 6; ++s) EXPECT_TRUE(allZero(out.stems[s])) << "stem " << s << " should be silent";
    EXPECT_EQ(out.stems[kMix].left, out.stems[0].left) << "mix of one non-silent stem is that stem";
    EXPECT_EQ(out.stems[kMix].right, out.stems[0].right);
}

// Schedules at the buffer's limits (random schedules of smaller blocks are in
// test_proc_invariance). Single-call streams cover a flush that fits one
// model run (1000, 257024) and ones that do not (257025, 300000, and 600000
// handed over in blocks of 254976, which leaves 342976 frames for the flush);
// 531441 frames in blocks of maxInputSize() cross two chunk seams first.
INSTANTIATE_TEST_SUITE_P(
    HostBlocks, IdentityStream,
    ::testing::Values(StreamCase{"blocks_maxInputSize", 531441, {}},
                      StreamCase{"single_call_1000", 1000, {1000}},
                      StreamCase{"single_call_257024", 257024, {257024}},
                      StreamCase{"single_call_257025", 257025, {257025}},
                      StreamCase{"single_call_300000", 300000, {300000}},
                      StreamCase{"blocks_254976_of_600000", 600000, {254976}}),
    [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

}  // namespace
}  // namespace tonwerk_test
