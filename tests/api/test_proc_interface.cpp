// The processor's contract with the host: input layouts, when output starts,
// what maxInputSize reports, rejected input, and sharing of models.
#include "proc_stream_support.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tonwerk_test {
namespace {

// See test_proc_identity_stream.cpp: rounding inside the stream, more within
// one frame of its ends.
constexpr double kInteriorTolerance = 1e-6;
constexpr double kEdgeTolerance = 1e-4;
constexpr std::size_t kEdge = 4096;
constexpr double kSumTolerance = 2.5e-7;

void expectVocalsAre(const Stereo& vocals, const Stereo& signal) {
    ASSERT_EQ(vocals.frames(), signal.frames());
    const std::size_t n = signal.frames();
    for (std::size_t i = 0; i < n; ++i) {
        const double tolerance = (i < kEdge || i + kEdge >= n) ? kEdgeTolerance : kInteriorTolerance;
        ASSERT_NEAR(vocals.left[i], signal.left[i], tolerance) << "channel 0, frame " << i;
        ASSERT_NEAR(vocals.right[i], signal.right[i], tolerance) << "channel 1, frame " << i;
    }
}

Stereo head(const Stereo& s, std::size_t frames) {
    return {std::vector<float>(s.left.begin(), s.left.begin() + static_cast<std::ptrdiff_t>(frames)),
            std::vector<float>(s.right.begin(), s.right.begin() + static_cast<std::ptrdiff_t>(frames))};
}

void expectSameOutput(const StreamOutput& a, const StreamOutput& b) {
    for (std::size_t s = 0; s < kOutputCount; ++s) {
        EXPECT_EQ(a.stems[s].left, b.stems[s].left) << "output " << s << ", channel 0";
        EXPECT_EQ(a.stems[s].right, b.stems[s].right) << "output " << s << ", channel 1";
    }
}

TEST(ProcLayout, InterleavedAndPlanarGiveTheSameStems) {
    const Stereo signal = bandLimitedSignal(30000);
    auto context = loadContext("band_split.onnx");
    tonwerk::TonwerkProc interleaved(context, makeConfig(true));
    tonwerk::TonwerkProc planar(context, makeConfig(false));
    const StreamOutput a = runInBlocksOf(interleaved, signal, 7000, true);
    const StreamOutput b = runInBlocksOf(planar, signal, 7000, false);
    ASSERT_EQ(a.frames(), signal.frames());
    expectSameOutput(a, b);
}

// With `channels` 4 an interleaved block of 4k floats is k frames, read as
// stereo pairs from its first 2k floats; the rest of the block is ignored.
TEST(ProcLayout, InterleavedChannelsFourReadsPairsFromTheFirstHalf) {
    auto context = loadContext("identity.onnx");
    {
        tonwerk::TonwerkProc proc(context, makeConfig(true, kAllStems, 4));
        const std::vector<float> block{0.1F, 0.2F, 0.3F, 0.4F, 5.0F, 6.0F, 7.0F, 8.0F};
        const auto out = proc.process(block, true);
        ASSERT_EQ(out.size(), kOutputCount);
        ASSERT_EQ(out[kMix].size(), 4u);
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_NEAR(out[kResidual][i] + out[kMix][i], block[i], kSumTolerance) << "float " << i;
        }
    }
    const Stereo signal = bandLimitedSignal(6000);
    std::vector<float> block = interleavedBlock(signal, 0, signal.frames());
    block.resize(4 * signal.frames(), 9.0F);
    tonwerk::TonwerkProc proc(context, makeConfig(true, kAllStems, 4));
    StreamOutput out;
    append(out, proc.process(block, true), true);
    expectVocalsAre(out.stems[0], signal);
    const Deviation restored = deviation(sum(out.stems[kResidual], out.stems[kMix]), signal);
    EXPECT_LE(restored.max, kSumTolerance) << "frame " << restored.at;
}

TEST(ProcThresholds, OutputStartsAtExactly257024FramesAndMaxInputSizeShrinksAfterIt) {
    const Stereo signal = bandLimitedSignal(257024);
    auto context = loadContext("identity.onnx");

    tonwerk::TonwerkProc stepwise(context, makeConfig(true));
    EXPECT_EQ(stepwise.maxInputSize(), 257024u);
    EXPECT_TRUE(stepwise.process(interleavedBlock(signal, 0, 257023), false).empty());
    EXPECT_EQ(stepwise.maxInputSize(), 257024u);
    StreamOutput a;
    const auto first = stepwise.process(interleavedBlock(signal, 257023, 1), false);
    EXPECT_EQ(first.size(), kOutputCount);
    append(a, first, true);
    EXPECT_EQ(stepwise.maxInputSize(), 254976u);

    tonwerk::TonwerkProc atOnce(context, makeConfig(true));
    StreamOutput b;
    append(b, atOnce.process(interleavedBlock(signal, 0, 257024), false), true);

    // The newest 4096 frames stay buffered for the next chunk.
    ASSERT_EQ(a.frames(), 257024u - 4096u);
    expectSameOutput(a, b);
    const Stereo expected = head(signal, a.frames());
    for (std::size_t i = 0; i + kEdge < a.frames(); ++i) {
        const double tolerance = i < kEdge ? kEdgeTolerance : kInteriorTolerance;
        ASSERT_NEAR(a.stems[0].left[i], expected.left[i], tolerance) << "frame " << i;
        ASSERT_NEAR(a.stems[0].right[i], expected.right[i], tolerance) << "frame " << i;
    }
}

TEST(ProcThresholds, OverflowingPushIsRejectedAndTheStreamContinues) {
    const Stereo signal = bandLimitedSignal(520000);
    tonwerk::TonwerkProc proc(loadContext("identity.onnx"), makeConfig(false));
    StreamOutput out;
    append(out, proc.process(planarBlock(signal, 0, 200000), false), false);
    ASSERT_EQ(out.frames(), 0u);
    try {
        proc.process(planarBlock(signal, 200000, 314049), false);  // one frame beyond the 514048 the buffer holds
        FAIL() << "overflow accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Buffer overflow: cannot accept chunk of size 314049");
    }
    append(out, proc.process(planarBlock(signal, 200000, 160000), false), false);
    append(out, proc.process(planarBlock(signal, 360000, 160000), true), false);
    expectVocalsAre(out.stems[0], signal);
}

TEST(ProcInput, UnreadableLayoutsAreRejectedWithoutDisturbingTheStream) {
    auto context = loadContext("identity.onnx");
    const std::vector<float> eight(8, 0.25F);
    for (const bool interleaved : {true, false}) {
        tonwerk::TonwerkProc proc(context, makeConfig(interleaved, kAllStems, 0));
        EXPECT_THROW(proc.process(eight, false), std::invalid_argument) << "channels 0, interleaved " << interleaved;
        EXPECT_EQ(proc.maxInputSize(), 257024u);
    }
    {
        tonwerk::TonwerkProc proc(context, makeConfig(true, kAllStems, 1));
        EXPECT_THROW(proc.process(eight, false), std::invalid_argument) << "interleaved, channels 1";
        EXPECT_THROW(proc.process(eight, true), std::invalid_argument) << "interleaved, channels 1, eof";
    }
    // Planar ignores `channels`, but needs two halves of equal length.
    const Stereo signal = bandLimitedSignal(60000);
    tonwerk::TonwerkProc proc(context, makeConfig(false, kAllStems, 1));
    StreamOutput out;
    append(out, proc.process(planarBlock(signal, 0, 30000), false), false);
    std::vector<float> odd = planarBlock(signal, 30000, 30000);
    odd.pop_back();
    EXPECT_THROW(proc.process(odd, true), std::invalid_argument);
    append(out, proc.process(planarBlock(signal, 30000, 30000), true), false);
    expectVocalsAre(out.stems[0], signal);
}

TEST(ProcConstruction, MissingContextIsReported) {
    const auto expectNoContext = [](std::shared_ptr<tonwerk::InferenceContext> context) {
        try {
            tonwerk::TonwerkProc proc(std::move(context), makeConfig(true));
            FAIL() << "built without a context";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Inference context is not provided");
        }
    };
    expectNoContext(nullptr);
    auto context = loadContext("identity.onnx");
    auto emptied = std::make_shared<tonwerk::InferenceContext>(std::move(*context));
    expectNoContext(context);  // moved from: no implementation left
    tonwerk::TonwerkProc proc(emptied, makeConfig(true));
    EXPECT_EQ(proc.maxInputSize(), 257024u);
}

// 300000 frames in blocks of 65536: two model runs per stream.
constexpr std::size_t kSharedFrames = 300000;
constexpr std::size_t kSharedBlock = 65536;

TEST(ProcSharing, TwoProcessorsOnOneContextMatchOneAlone) {
    const Stereo signal = bandLimitedSignal(kSharedFrames);
    tonwerk::TonwerkProc alone(loadContext("band_split.onnx"), makeConfig(true));
    const StreamOutput reference = runInBlocksOf(alone, signal, kSharedBlock);

    auto shared = loadContext("band_split.onnx");
    tonwerk::TonwerkProc first(shared, makeConfig(true));
    tonwerk::TonwerkProc second(shared, makeConfig(true));
    StreamOutput a;
    StreamOutput b;
    for (std::size_t at = 0; at < kSharedFrames; at += kSharedBlock) {
        const std::size_t n = std::min(kSharedBlock, kSharedFrames - at);
        const bool eof = at + n == kSharedFrames;
        append(a, first.process(interleavedBlock(signal, at, n), eof), true);
        append(b, second.process(interleavedBlock(signal, at, n), eof), true);
    }
    ASSERT_EQ(reference.frames(), kSharedFrames);
    expectSameOutput(a, reference);
    expectSameOutput(b, reference);
}

TEST(ProcSharing, TwoContextsOnTwoThreadsMatchOneAlone) {
    const Stereo signal = bandLimitedSignal(kSharedFrames);
    tonwerk::TonwerkProc alone(loadContext("band_split.onnx"), makeConfig(true));
    const StreamOutput reference = runInBlocksOf(alone, signal, kSharedBlock);

    std::array<StreamOutput, 2> outputs;
    std::array<std::string, 2> errors;
    const auto work = [&](std::size_t i) {
        try {
            tonwerk::TonwerkProc proc(loadContext("band_split.onnx"), makeConfig(true));
            outputs[i] = runInBlocksOf(proc, signal, kSharedBlock);
        } catch (const std::exception& e) {
            errors[i] = e.what();
        }
    };
    std::thread one(work, 0);
    std::thread two(work, 1);
    one.join();
    two.join();
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(errors[i], "") << "thread " << i;
        expectSameOutput(outputs[i], reference);
    }
}

}  // namespace
}  // namespace tonwerk_test
