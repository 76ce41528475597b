// The same audio streamed in many random block schedules (sizes from 1 frame
// to maxInputSize(), long runs of 1-frame blocks among them) gives the same
// stems as blocks of 1024. Chunks are cut in whole hops, so every analysis
// frame sees the same samples on one global frame grid whatever the schedule,
// and the overlap-add sums them in the same order. The test models act on
// each frame alone (a copy, a split into frequency bands), so a frame's
// result does not depend on which chunk carried it: the stems agree bit for
// bit (tolerance 0). A model that looks across frames would differ near chunk
// borders, which is why the tolerance is a property of the model.
#include "proc_stream_support.h"

#include <random>

namespace tonwerk_test {
namespace {

constexpr std::size_t kStreamFrames = 30 * 44100;
constexpr std::uint32_t kSeed = 20261123;
constexpr std::uint32_t kSchedules = 6;

// Runs of single frames, small host buffers, sizes spread evenly over the
// octaves up to the limit, and the limit itself; the large ones rare enough
// for a stream of some hundred calls.
std::size_t nextBlock(std::mt19937& random, std::size_t& singleFramesLeft, std::size_t limit) {
    const auto pick = [&random](std::size_t low, std::size_t high) {
        return std::uniform_int_distribution<std::size_t>(low, high)(random);
    };
    if (singleFramesLeft > 0) return (--singleFramesLeft, 1);
    switch (std::discrete_distribution<int>{20, 45, 32, 2, 1}(random)) {
        case 0: singleFramesLeft = pick(0, 3000); return 1;
        case 1: return pick(1, 4096);
        case 2: return std::min(limit, std::size_t(std::exp2(std::uniform_real_distribution<double>(0, 18)(random))));
        case 3: return pick(limit - 2048, limit);
        default: return limit;
    }
}

class StreamInvariance : public ::testing::TestWithParam<std::string> {};

TEST_P(StreamInvariance, RandomBlockSchedulesGiveTheStemsOfBlocksOf1024) {
    const Stereo signal = bandLimitedSignal(kStreamFrames);
    const auto context = loadContext(GetParam());
    tonwerk::TonwerkProc fixed(context, makeConfig(true));
    const StreamOutput reference = runInBlocksOf(fixed, signal, 1024);
    if (GetParam() == "identity.onnx") expectIdentityOutput(reference, signal);
    for (std::uint32_t seed = kSeed; seed < kSeed + kSchedules; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        std::size_t singleFramesLeft = 0, singleFrameCalls = 0;
        tonwerk::TonwerkProc proc(context, makeConfig(seed % 2 == 0));
        expectSameOutput(runStream(proc, signal, seed % 2 == 0, [&](const tonwerk::TonwerkProc& p) {
            const std::size_t n = nextBlock(random, singleFramesLeft, p.maxInputSize());
            singleFrameCalls += n == 1 ? 1 : 0;
            return n;
        }), reference);
        EXPECT_GT(singleFrameCalls, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Models, StreamInvariance, ::testing::Values("identity.onnx", "band_split.onnx"),
                         [](const auto& info) { return info.param.substr(0, info.param.find('.')); });

}  // namespace
}  // namespace tonwerk_test
