// The live engine and its real-time adapter through the C interface (and
// the C++ header over it), with the generated identity and gating models:
// delays exactly as reported, underruns that keep the music in the
// residual, resets, and refused settings.
#include "identity_stream_check.h"
#include "live_signal.h"
#include "test_models.h"
#include "tonwerk/tonwerk_live.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>

namespace tonwerk::test {
namespace {

// As in the offline streams: rounding inside the stream; within a frame of
// its start the step from silence adds more.
constexpr float kTolerance = static_cast<float>(kStreamInteriorTolerance);

float toleranceAt(long inputSample) {
    const long edge = 2 * static_cast<long>(kStreamEdgeFrames);
    return inputSample > -edge && inputSample < edge ? static_cast<float>(kStreamEdgeTolerance) : kTolerance;
}

tw_live_settings settingsOf(std::uint32_t update, std::uint32_t lookahead, std::uint32_t maxBlock = 512,
                            int offline = 0) {
    tw_live_settings settings = live::defaultSettings();
    settings.update = update;
    settings.lookahead = lookahead;
    settings.max_block = maxBlock;
    settings.offline = offline;
    return settings;
}

// Through the identity model the vocals are the input, delayed; the other
// stems are silent, the residual holds what the vocals miss and the mix the
// stems' sum. `skip(i)` exempts frames (underruns) from the vocals check.
using Skip = bool (*)(long frame, const OutputStreams& out, long delay);
bool none(long, const OutputStreams&, long) { return false; }
// A frame of the stream without model output: silent vocals.
bool dry(long frame, const OutputStreams& out, long delay) {
    return frame >= delay && out.at(TW_OUTPUT_VOCALS, 2 * frame) == 0.0F && out.at(TW_OUTPUT_VOCALS, 2 * frame + 1) == 0.0F;
}

void expectDelayedIdentity(const std::vector<float>& input, const OutputStreams& out, long delay, Skip skip = none) {
    const long samples = static_cast<long>(out.streams[TW_OUTPUT_VOCALS].size());
    for (long i = 0; i < samples; ++i) {
        const float expected = i - 2 * delay < 0 ? 0.0F : input[static_cast<std::size_t>(i - 2 * delay)];
        const float vocals = out.at(TW_OUTPUT_VOCALS, i);
        ASSERT_NEAR(vocals + out.at(TW_OUTPUT_RESIDUAL, i), expected, kTolerance) << "sample " << i;
        ASSERT_EQ(out.at(TW_OUTPUT_MIX, i), vocals) << "sample " << i;
        for (int s = TW_OUTPUT_DRUM; s <= TW_OUTPUT_BASS; ++s) ASSERT_EQ(out.at(s, i), 0.0F) << s << " " << i;
        if (skip(i / 2, out, delay)) continue;
        ASSERT_NEAR(vocals, expected, toleranceAt(i - 2 * delay)) << "sample " << i;
    }
}

struct EngineCase {
    std::uint32_t update;
    std::uint32_t lookahead;
};

class LiveEngine : public testing::TestWithParam<EngineCase> {};

TEST_P(LiveEngine, GivesTheInputBackAfterItsReportedLatency) {
    const EngineCase c = GetParam();
    live::Engine engine(readModel("identity.onnx"), settingsOf(c.update, c.lookahead));
    const tw_live_latency latency = engine.latency();
    EXPECT_EQ(latency.lookahead, 1024U * c.lookahead);
    EXPECT_EQ(latency.output_delay, 3072U);
    EXPECT_EQ(latency.total, latency.lookahead + latency.output_delay);
    const std::size_t block = engine.blockFrames();
    ASSERT_EQ(block, 1024U * c.update);

    const std::size_t blocks = (latency.total + 3 * 4096) / block + 1;
    const std::vector<float> input = tones(blocks * block, c.update);
    OutputStreams out;
    for (std::size_t b = 0; b < blocks; ++b) {
        engine.process(input.data() + 2 * b * block, out.prepare(block));
        out.keep();
    }
    expectDelayedIdentity(input, out, static_cast<long>(latency.total));

    // After a reset the stream starts again from silence.
    engine.reset();
    OutputStreams again;
    for (std::size_t b = 0; b < blocks; ++b) {
        engine.process(input.data() + 2 * b * block, again.prepare(block));
        again.keep();
    }
    EXPECT_EQ(again.streams, out.streams);
}

INSTANTIATE_TEST_SUITE_P(Settings, LiveEngine,
                         testing::Values(EngineCase{1, 0}, EngineCase{4, 4}, EngineCase{3, 13}, EngineCase{32, 64},
                                         EngineCase{16, 240}));

TEST(LiveEngine, StemsLeftOutStayInTheResidual) {
    tw_live_settings settings = settingsOf(2, 1);
    settings.stem_mask = TW_STEMS_ALL & ~TW_STEM_VOCALS;
    live::Engine engine(readModel("flag_gated.onnx"), settings);
    const std::size_t block = engine.blockFrames();
    const std::vector<float> input = tones(8 * block, 7);
    OutputStreams out;
    for (std::size_t b = 0; b < 8; ++b) {
        engine.process(input.data() + 2 * b * block, out.prepare(block));
        out.keep();
    }
    const long delay = static_cast<long>(engine.latency().total);
    for (long i = 0; i < static_cast<long>(input.size()); ++i) {
        const float expected = i < 2 * delay ? 0.0F : input[static_cast<std::size_t>(i - 2 * delay)];
        ASSERT_EQ(out.at(TW_OUTPUT_VOCALS, i), 0.0F) << i;
        // Five gated copies of the input make the mix; the residual takes back four.
        ASSERT_NEAR(out.at(TW_OUTPUT_MIX, i), 5 * expected, 5 * toleranceAt(i - 2 * delay)) << i;
        ASSERT_NEAR(out.at(TW_OUTPUT_RESIDUAL, i), -4 * expected, 5 * toleranceAt(i - 2 * delay)) << i;
    }
}

tw_live_settings withThreads(std::uint32_t threads, int gpu = 0) {
    tw_live_settings settings = live::defaultSettings();
    settings.threads = threads;
    settings.gpu = gpu;
    return settings;
}

struct RefusedCase {
    tw_live_settings settings;
    const char* message;
};

TEST(LiveSettings, OutOfRangeSettingsAreRefusedBeforeTheModelLoads) {
    tw_live_settings noMask = settingsOf(4, 4);
    noMask.stem_mask = 0x40;
    const RefusedCase cases[] = {
        {settingsOf(0, 4), "live: update must be between 1 and 256 hops, got 0"},
        {settingsOf(257, 0), "live: update must be between 1 and 256 hops, got 257"},
        {settingsOf(4, 253), "live: lookahead 253 and update 4 together exceed the model's 256 frames"},
        {settingsOf(4, 4, 0), "live: the maximum block must be at least one frame"},
        {noMask, "stem_mask 64 has bits outside TW_STEMS_ALL (63)"},
        {withThreads(0), "live: threads must be between 1 and 64, got 0"},
        {withThreads(65), "live: threads must be between 1 and 64, got 65"},
    };
    const auto bytes = readModel("identity.onnx");
    for (const RefusedCase& c : cases) {
        tw_live_adapter* adapter = reinterpret_cast<tw_live_adapter*>(&adapter);
        EXPECT_EQ(tw_live_adapter_create(bytes.data(), bytes.size(), &c.settings, &adapter),
                  TW_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(adapter, nullptr);
        EXPECT_EQ(tw_live_last_error(), std::string("tw_live_adapter_create: ") + c.message);
    }
}

#if defined(__linux__)
std::size_t threadsOfThisProcess() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                                  std::filesystem::directory_iterator()));
}

// A live instance must leave the cores to its host: a run on `threads`
// threads keeps threads - 1 helpers, and one thread keeps none.
TEST(LiveSettings, AnEngineKeepsOneHelperThreadFewerThanItsThreads) {
    const auto bytes = readModel("identity.onnx");
    const live::Engine warm(bytes);  // the process's first load starts threads of its own
    for (const std::uint32_t threads : {1U, 3U, 2U}) {
        const std::size_t before = threadsOfThisProcess();
        const live::Engine engine(bytes, withThreads(threads));
        EXPECT_EQ(threadsOfThisProcess() - before, threads - 1) << threads << " threads";
    }
}
#endif

// On a machine without a GPU every attempt at one fails loudly into the
// host's log; the live default makes none.
TEST(LiveSettings, TheDefaultTriesNoGpuProvider) {
    const auto bytes = readModel("identity.onnx");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    { const live::Engine engine(bytes, withThreads(1)); }
    const std::string printed = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed, "");
}

// Random block sizes up to the maximum, each call's output exactly as long;
// after frame `unpacedUntil` a pause of `pacePerFrame` follows every block.
void stream(live::Adapter& adapter, const std::vector<float>& input, std::size_t maxBlock, OutputStreams& out,
            unsigned seed, std::size_t unpacedUntil = SIZE_MAX, std::chrono::microseconds pacePerFrame = {}) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> size(1, maxBlock);
    for (std::size_t at = 0; at < input.size() / 2;) {
        const std::size_t frames = std::min(size(random), input.size() / 2 - at);
        ASSERT_TRUE(adapter.process(input.data() + 2 * at, out.prepare(frames), frames)) << tw_live_last_error();
        out.keep();
        at += frames;
        if (at > unpacedUntil) std::this_thread::sleep_for(pacePerFrame * frames);
    }
}

TEST(LiveAdapter, OfflineGivesEveryFrameOfTheModelAtTheReportedLatency) {
    const std::size_t maxBlock = 700;
    live::Adapter adapter(readModel("identity.onnx"), settingsOf(3, 5, maxBlock, 1));
    const tw_live_latency latency = adapter.latency();
    EXPECT_EQ(latency.lookahead, 5 * 1024U);
    EXPECT_EQ(latency.output_delay, 3072U + 2 * 3 * 1024 + maxBlock);
    const std::vector<float> input = tones(latency.total + 20000, 3);
    OutputStreams out;
    stream(adapter, input, maxBlock, out, 1);
    expectDelayedIdentity(input, out, static_cast<long>(latency.total));
    EXPECT_EQ(adapter.underruns(), 0U);

    // A transport jump: silence for the latency, then the new material alone.
    adapter.reset();
    const std::vector<float> after = tones(latency.total + 9000, 4);
    OutputStreams next;
    stream(adapter, after, maxBlock, next, 2);
    expectDelayedIdentity(after, next, static_cast<long>(latency.total));
}

// Fed far faster than real time the worker falls behind and input blocks
// are dropped: those frames are the delayed input in the residual, silence
// elsewhere, and counted. Fed at a pace it can follow, the same stream
// recovers by itself.
TEST(LiveAdapter, UnderrunsKeepTheMusicInTheResidualAndRecover) {
    const std::size_t maxBlock = 256;
    live::Adapter adapter(readModel("identity.onnx"), settingsOf(4, 2, maxBlock));
    const long delay = static_cast<long>(adapter.latency().total);
    const std::size_t rushed = 100 * 1024;
    // Then at three quarters of real time (22.7 us per frame), ample for the
    // worker; sanitizer builds slow it several times over, so they are fed
    // slower still. The rushed input is delayed and partly dropped, and the
    // engine restarts after the drop, so the second half of the calm part is
    // where all must be well.
    const std::size_t calm = 2 * 44100;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    const std::chrono::microseconds pace(150);
#else
    const std::chrono::microseconds pace(30);
#endif
    const std::vector<float> input = tones(rushed + calm, 5);
    OutputStreams out;
    stream(adapter, input, maxBlock, out, 3, rushed, pace);
    expectDelayedIdentity(input, out, delay, dry);
    std::uint64_t silent = 0;
    long lastMissed = 0;
    for (long frame = 0; frame < static_cast<long>(input.size() / 2); ++frame) {
        silent += dry(frame, out, delay) ? 1 : 0;
        lastMissed = dry(frame, out, delay) ? frame : lastMissed;
    }
    EXPECT_GT(silent, 0U);
    EXPECT_EQ(silent, adapter.underruns());
    EXPECT_LT(lastMissed, static_cast<long>(rushed + calm / 2));
}

TEST(LiveAdapter, BlocksBeyondTheMaximumAreRefusedAndTakeNothing) {
    live::Adapter adapter(readModel("identity.onnx"), settingsOf(2, 2, 64, 1));
    const std::vector<float> input = tones(adapter.latency().total + 4096, 8);
    OutputStreams out;
    EXPECT_FALSE(adapter.process(input.data(), out.prepare(65), 65));
    EXPECT_EQ(tw_live_last_error(), std::string("tw_live_adapter_process: frames 65 is more than max_block 64; "
                                                "nothing was taken"));
    stream(adapter, input, 64, out, 6);
    expectDelayedIdentity(input, out, static_cast<long>(adapter.latency().total));
}

}  // namespace
}  // namespace tonwerk::test
