// Numbers that are not music: NaN, infinities, huge values and denormals in
// the input never stop the stream, and what they touch is bounded.
//
// A sample enters the four analysis frames that cover it (frames start every
// 1024 frames on one grid for the whole stream). A NaN or infinity makes each
// of those frames' spectra non-finite, so on its channel every output row is
// non-finite over those frames, 7168 samples from 3072 before the sample's
// hop to 4096 after its start, and exact elsewhere, since the overlap-add
// keeps no older frame.
#include "proc_stream_support.h"

#include <limits>

namespace tonwerk_test {
namespace {

constexpr std::size_t kFrames = 600000;  // three model runs in blocks of 4096
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

struct Range {
    std::size_t begin, end;
    double tolerance = 0;  // for ranges that stay finite
    bool holds(std::size_t i) const { return i >= begin && i < end; }
};

// Output samples made from the frames that cover input samples [from, to].
Range framesCovering(std::size_t from, std::size_t to, double tolerance = 0) {
    const std::size_t hopStart = from - from % 1024;
    return {hopStart < 3072 ? 0 : hopStart - 3072, std::min(kFrames, to - to % 1024 + 4096), tolerance};
}

StreamOutput streamOf(const std::string& model, const Stereo& signal) {
    tonwerk::TonwerkProc proc(loadContext(model), makeConfig(true));
    StreamOutput out = runInBlocksOf(proc, signal, 4096);
    EXPECT_EQ(out.frames(), signal.frames());
    return out;
}

// Every sample of one channel of every output: non-finite inside
// `poisoned`, finite and within a range's tolerance inside `near`, identical
// to the clean stream elsewhere.
void expectChannel(const StreamOutput& out, const StreamOutput& clean, bool left, const std::vector<Range>& poisoned,
                   const std::vector<Range>& near) {
    for (std::size_t s = 0; s < kOutputCount; ++s) {
        const std::vector<float>& actual = left ? out.stems[s].left : out.stems[s].right;
        const std::vector<float>& expected = left ? clean.stems[s].left : clean.stems[s].right;
        for (std::size_t i = 0; i < actual.size(); ++i) {
            const auto in = [i](const Range& r) { return r.holds(i); };
            const auto close = std::find_if(near.begin(), near.end(), in);
            if (std::any_of(poisoned.begin(), poisoned.end(), in)) {
                ASSERT_FALSE(std::isfinite(actual[i])) << "output " << s << ", frame " << i;
            } else if (close != near.end()) {
                ASSERT_TRUE(std::isfinite(actual[i])) << "output " << s << ", frame " << i;
                ASSERT_NEAR(actual[i], expected[i], close->tolerance) << "output " << s << ", frame " << i;
            } else {
                ASSERT_EQ(actual[i], expected[i]) << "output " << s << ", frame " << i;
            }
        }
    }
}

TEST(NonFiniteInput, PoisonsOnlyTheFramesThatCoverItAndHugeOrTinyValuesPassThrough) {
    Stereo clean = bandLimitedSignal(kFrames);
    std::fill(clean.left.begin() + 400000, clean.left.begin() + 401000, 0.0F);  // becomes denormals below
    std::fill(clean.right.begin() + 400000, clean.right.begin() + 401000, 0.0F);
    Stereo signal = clean;
    signal.left[2000] = kNaN;       // the reflected lead-in holds it too
    signal.left[257500] = -kInf;    // its frames straddle the first chunk border
    signal.right[100000] = kInf;
    signal.right[180000] = 1e30F;   // finite all the way: 4096 × 1e30 fits a float
    signal.left[180000] = -1e30F;
    for (std::size_t i = 400000; i < 401000; ++i) signal.left[i] = signal.right[i] = 1e-40F;  // denormals

    const StreamOutput reference = streamOf("band_split.onnx", clean);
    const StreamOutput out = streamOf("band_split.onnx", signal);
    // The frames around 1e30 carry the impulse's share of every band (up to
    // some 1e29), finite; denormals in place of silence change nothing audible.
    const std::vector<Range> near{framesCovering(180000, 180000, std::numeric_limits<double>::max()),
                                  framesCovering(400000, 400999, 1e-30)};
    expectChannel(out, reference, true, {framesCovering(2000, 2000), framesCovering(257500, 257500)}, near);
    expectChannel(out, reference, false, {framesCovering(100000, 100000)}, near);
}

}  // namespace
}  // namespace tonwerk_test
