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

#include <cmath>
#include <random>

namespace tonwerk_test {
namespace {

constexpr std::size_t kStreamFrames = 30 * 44100;
constexpr std::uint32_t kSeed = 20261123;
constexpr std::uint32_t kSchedules = 6;

// Block sizes drawn per call: runs of single frames, small host buffers,
// sizes spread evenly over the octaves up to the limit, and the limit itself.
class RandomSchedule {
public:
    explicit RandomSchedule(std::uint32_t seed) : random_(seed) {}

    std::size_t next(const tonwerk::TonwerkProc& proc) {
        if (singleFramesLeft_ > 0) {
            --singleFramesLeft_;
            return 1;
        }
        const std::size_t limit = proc.maxInputSize();
        switch (kind_(random_)) {
            case 0: singleFramesLeft_ = pick(0, 3000); return 1;
            case 1: return pick(1, 4096);
            case 2: return std::min(limit, static_cast<std::size_t>(std::exp2(octaves_(random_))));
            case 3: return pick(limit - 2048, limit);
            default: return limit;
        }
    }

private:
    std::size_t pick(std::size_t low, std::size_t high) {
        return std::uniform_int_distribution<std::size_t>(low, high)(random_);
    }
    std::mt19937 random_;
    std::uniform_real_distribution<double> octaves_{0.0, 18.0};
    // Percent of calls per kind; the large ones rare enough for a stream of
    // some hundred calls.
    std::discrete_distribution<int> kind_{20, 45, 32, 2, 1};
    std::size_t singleFramesLeft_ = 0;
};

struct ScheduleStats {
    std::size_t calls = 0;
    std::size_t singleFrameCalls = 0;
    std::size_t largest = 0;
};

class StreamInvariance : public ::testing::TestWithParam<std::string> {};

TEST_P(StreamInvariance, RandomBlockSchedulesGiveTheStemsOfBlocksOf1024) {
    const Stereo signal = bandLimitedSignal(kStreamFrames);
    const auto context = loadContext(GetParam());
    tonwerk::TonwerkProc fixed(context, makeConfig(true));
    const StreamOutput reference = runInBlocksOf(fixed, signal, 1024);
    if (GetParam() == "identity.onnx") expectIdentityOutput(reference, signal);

    for (std::uint32_t schedule = 0; schedule < kSchedules; ++schedule) {
        SCOPED_TRACE("seed " + std::to_string(kSeed + schedule));
        RandomSchedule sizes(kSeed + schedule);
        ScheduleStats stats;
        const bool interleaved = schedule % 2 == 0;
        tonwerk::TonwerkProc proc(context, makeConfig(interleaved));
        const StreamOutput out = runStream(proc, signal, interleaved, [&](std::size_t, const tonwerk::TonwerkProc& p) {
            const std::size_t n = sizes.next(p);
            ++stats.calls;
            stats.singleFrameCalls += n == 1 ? 1 : 0;
            stats.largest = std::max(stats.largest, n);
            return n;
        });
        expectSameOutput(out, reference);
        EXPECT_GT(stats.singleFrameCalls, 0u);
        RecordProperty("schedule_" + std::to_string(schedule),
                       std::to_string(stats.calls) + " calls, " + std::to_string(stats.singleFrameCalls) +
                           " of 1 frame, largest " + std::to_string(stats.largest));
    }
}

INSTANTIATE_TEST_SUITE_P(Models, StreamInvariance, ::testing::Values("identity.onnx", "band_split.onnx"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return info.param.substr(0, info.param.find('.'));
                         });

}  // namespace
}  // namespace tonwerk_test
