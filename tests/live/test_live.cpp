// The live engine and its real-time adapter through the C interface (and
// the C++ header over it), with the generated identity, gains and gating
// models: delays exactly as reported, underruns placed by the library's
// stall hook (so no test depends on the machine's pace) that crossfade,
// keep every output on the input and are counted exactly, resets, mode
// switches, threads and refused settings.
#include "identity_stream_check.h"
#include "live_signal.h"
#include "test_models.h"
#include "test_support.h"
#include "tonwerk/tonwerk_live.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>

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
// stems' sum.
void expectDelayedIdentity(const std::vector<float>& input, const OutputStreams& out, long delay) {
    const long samples = static_cast<long>(out.streams[TW_OUTPUT_VOCALS].size());
    for (long i = 0; i < samples; ++i) {
        const float expected = i - 2 * delay < 0 ? 0.0F : input[static_cast<std::size_t>(i - 2 * delay)];
        const float vocals = out.at(TW_OUTPUT_VOCALS, i);
        ASSERT_NEAR(vocals + out.at(TW_OUTPUT_RESIDUAL, i), expected, kTolerance) << "sample " << i;
        ASSERT_EQ(out.at(TW_OUTPUT_MIX, i), vocals) << "sample " << i;
        for (int s = TW_OUTPUT_DRUM; s <= TW_OUTPUT_BASS; ++s) ASSERT_EQ(out.at(s, i), 0.0F) << s << " " << i;
        ASSERT_NEAR(vocals, expected, toleranceAt(i - 2 * delay)) << "sample " << i;
    }
}

// The input's whole blocks through the engine, one call each.
void streamBlocks(live::Engine& engine, const std::vector<float>& input, OutputStreams& out) {
    const std::size_t block = engine.blockFrames();
    for (std::size_t at = 0; at + block <= input.size() / 2; at += block) {
        engine.process(input.data() + 2 * at, out.prepare(block));
        out.keep();
    }
}

struct EngineCase {
    std::uint32_t update;
    std::uint32_t lookahead;
    const char* model = "identity.onnx";  // identity_short.onnx sees 96 frames, as a live export does
};

class LiveEngine : public testing::TestWithParam<EngineCase> {};

TEST_P(LiveEngine, GivesTheInputBackAfterItsReportedLatency) {
    const EngineCase c = GetParam();
    live::Engine engine(readModel(c.model), settingsOf(c.update, c.lookahead));
    const tw_live_latency latency = engine.latency();
    EXPECT_EQ(latency.lookahead, 1024U * c.lookahead);
    EXPECT_EQ(latency.output_delay, 3072U);
    EXPECT_EQ(latency.total, latency.lookahead + latency.output_delay);
    const std::size_t block = engine.blockFrames();
    ASSERT_EQ(block, 1024U * c.update);

    const std::size_t blocks = (latency.total + 3 * 4096) / block + 1;
    const std::vector<float> input = tones(blocks * block, c.update);
    OutputStreams out;
    streamBlocks(engine, input, out);
    expectDelayedIdentity(input, out, static_cast<long>(latency.total));

    // After a reset the stream starts again from silence.
    engine.reset();
    OutputStreams again;
    streamBlocks(engine, input, again);
    EXPECT_EQ(again.streams, out.streams);
}

INSTANTIATE_TEST_SUITE_P(Settings, LiveEngine,
                         testing::Values(EngineCase{1, 0}, EngineCase{4, 4}, EngineCase{3, 13}, EngineCase{32, 64},
                                         EngineCase{16, 240}, EngineCase{4, 4, "identity_short.onnx"},
                                         EngineCase{2, 94, "identity_short.onnx"}));

TEST(LiveEngine, StemsLeftOutStayInTheResidual) {
    tw_live_settings settings = settingsOf(2, 1);
    settings.stem_mask = TW_STEMS_ALL & ~TW_STEM_VOCALS;
    live::Engine engine(readModel("flag_gated.onnx"), settings);
    const std::size_t block = engine.blockFrames();
    const std::vector<float> input = tones(8 * block, 7);
    OutputStreams out;
    streamBlocks(engine, input, out);
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

tw_live_settings withSize(std::uint32_t size) {
    tw_live_settings settings = live::defaultSettings();
    settings.size = size;
    return settings;
}

struct RefusedCase {
    tw_live_settings settings;
    const char* message;
    const char* model = "identity.onnx";
};

TEST(LiveSettings, OutOfRangeSettingsAreRefused) {
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
        {withSize(0), "live: settings.size is 0, this library reads 36 to 36 bytes: fill the settings with "
                      "tw_live_default_settings first"},
        {withSize(40), "live: settings.size is 40, this library reads 36 to 36 bytes: fill the settings with "
                       "tw_live_default_settings first"},
        {settingsOf(4, 93), "live: lookahead 93 and update 4 together exceed the model's 96 frames",
         "identity_short.onnx"},
    };
    for (const RefusedCase& c : cases) {
        const auto bytes = readModel(c.model);
        tw_live_adapter* adapter = reinterpret_cast<tw_live_adapter*>(&adapter);
        EXPECT_EQ(tw_live_adapter_create(bytes.data(), bytes.size(), &c.settings, &adapter),
                  TW_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(adapter, nullptr);
        EXPECT_EQ(tw_live_last_error(), std::string("tw_live_adapter_create: ") + c.message);
    }
}

// A host compiled against an older header has a smaller record, and the
// library must not write past it.
TEST(LiveSettings, DefaultsFillOnlyTheRecordTheHostHas) {
    std::vector<unsigned char> record(sizeof(tw_live_settings) + 8, 0xab);
    tw_live_settings_init(reinterpret_cast<tw_live_settings*>(record.data()), 8);
    std::uint32_t head[2];
    std::memcpy(head, record.data(), sizeof head);
    EXPECT_EQ(head[0], 8u);
    EXPECT_EQ(head[1], std::uint32_t{TW_STEMS_ALL});
    EXPECT_EQ(std::count(record.begin() + 8, record.end(), 0xab), static_cast<std::ptrdiff_t>(record.size() - 8));
}

#if defined(__linux__)
// A live instance must leave the cores to its host: a run on `threads`
// threads keeps threads - 1 helpers, and one thread keeps none.
TEST(LiveSettings, AnEngineKeepsOneHelperThreadFewerThanItsThreads) {
    const auto bytes = readModel("identity.onnx");
    // The process's first thread start may bring one of a sanitizer's own.
    const live::Engine warm(bytes, withThreads(2));
    std::vector<live::Engine> engines;  // all kept, so that no thread ends while counting
    for (const std::uint32_t threads : {1U, 3U, 2U}) {
        const std::size_t before = threadsOfThisProcess();
        engines.emplace_back(bytes, withThreads(threads));
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

// Random block sizes up to the maximum, each call's output exactly as long.
void stream(live::Adapter& adapter, const std::vector<float>& input, std::size_t maxBlock, OutputStreams& out,
            unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> size(1, maxBlock);
    for (std::size_t at = 0; at < input.size() / 2;) {
        const std::size_t frames = std::min(size(random), input.size() / 2 - at);
        ASSERT_TRUE(adapter.process(input.data() + 2 * at, out.prepare(frames), frames)) << tw_live_last_error();
        out.keep();
        at += frames;
    }
}

// Holds the chosen model blocks of adapters created while it lives until
// they are late (the library's test hook), so underruns fall exactly there
// on any machine.
class StalledBlocks {
public:
    explicit StalledBlocks(const char* blocks) { set(blocks); }
    ~StalledBlocks() { set(""); }
    StalledBlocks(const StalledBlocks&) = delete;
    StalledBlocks& operator=(const StalledBlocks&) = delete;

private:
    static void set(const char* blocks) {
#if defined(_WIN32)
        _putenv_s("TONWERK_LIVE_TEST_STALL", blocks);
#else
        setenv("TONWERK_LIVE_TEST_STALL", blocks, 1);
#endif
    }
};

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


constexpr std::size_t kBlock = 2048;  // update 2
constexpr std::size_t kAfterAMissedBlock = 6 * kBlock;  // the block, and the engine's warm-up after it

// A stalled block and the engine's warm-up after it carry no model output:
// the delayed input takes their place, shared out as the last model block
// shared it (through the identity model all of it in the vocals, so the
// vocals stay the input and a muted vocals stem stays muted), and they are
// counted, exactly.
TEST(LiveAdapter, MissedBlocksKeepTheOutputsOnTheInputAndAreCounted) {
    const StalledBlocks stalled("5,14");
    live::Adapter adapter(readModel("identity.onnx"), settingsOf(2, 2, 256, 1));
    const long delay = static_cast<long>(adapter.latency().total);
    const std::vector<float> input = tones(delay + 24 * kBlock, 9);
    OutputStreams out;
    stream(adapter, input, 256, out, 4);
    expectDelayedIdentity(input, out, delay);
    EXPECT_EQ(adapter.underruns(), 2 * kAfterAMissedBlock);
}

// Every switch between model output and the shared-out input is a
// crossfade: through the gains model the outputs and the shares differ
// widely (the residual is -20 times the input, its share under one), yet no
// sample steps further than the input's own steps and a crossfade's allow,
// and the outputs still sum to the delayed input.
TEST(LiveAdapter, SwitchesToAndFromTheInputAreCrossfadesThatKeepTheSum) {
    const StalledBlocks stalled("6");
    live::Adapter adapter(readModel("gains.onnx"), settingsOf(2, 2, 256, 1));
    const long delay = static_cast<long>(adapter.latency().total);
    // Far from zero and slow, so that a switch without a crossfade would
    // step by far more than the input ever does.
    std::vector<float> input(2 * (static_cast<std::size_t>(delay) + 16 * kBlock));
    for (std::size_t i = 0; i < input.size(); ++i) {
        input[i] = 0.3F + 0.1F * static_cast<float>(std::sin(2 * kPi * 3 * static_cast<double>(i / 2) / 44100 + i % 2));
    }
    OutputStreams out;
    stream(adapter, input, 256, out, 5);
    ASSERT_EQ(adapter.underruns(), kAfterAMissedBlock);
    float peak = 0.0F;
    float inputStep = 0.0F;
    for (std::size_t i = 0; i < input.size(); ++i) {
        peak = std::max(peak, std::abs(input[i]));
        if (i >= 2) inputStep = std::max(inputStep, std::abs(input[i] - input[i - 2]));
    }
    const float factors[TW_OUTPUT_COUNT] = {1, 2, 3, 4, 5, 6, -20, 21};
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
        // A crossfade moves at most |factor - share| * peak / 129 per frame.
        const float bound = std::abs(factors[s]) * inputStep * 1.01F + (std::abs(factors[s]) + 1) * peak / 129 + 1e-4F;
        // From the stream's second frame: its first steps out of silence.
        for (long i = 2 * delay + 2; i < static_cast<long>(input.size()); ++i) {
            ASSERT_LE(std::abs(out.at(s, i) - out.at(s, i - 2)), bound) << "output " << s << ", sample " << i;
        }
    }
    for (long i = 0; i < static_cast<long>(input.size()); ++i) {
        float sum = out.at(TW_OUTPUT_RESIDUAL, i);
        for (int s = TW_OUTPUT_VOCALS; s <= TW_OUTPUT_BASS; ++s) sum += out.at(s, i);
        const float expected = i < 2 * delay ? 0.0F : input[static_cast<std::size_t>(i - 2 * delay)];
        ASSERT_NEAR(sum, expected, 40 * toleranceAt(i - 2 * delay)) << "sample " << i;
        ASSERT_NEAR(out.at(TW_OUTPUT_MIX, i), sum - out.at(TW_OUTPUT_RESIDUAL, i), 1e-4) << "sample " << i;
    }
}

// A transport jump in the middle of an underrun: the new stream starts
// clean, as after any reset; its own block 4 is stalled as well.
TEST(LiveAdapter, AResetDuringAnUnderrunStartsTheNewStreamClean) {
    const StalledBlocks stalled("4");
    live::Adapter adapter(readModel("identity.onnx"), settingsOf(2, 2, 256, 1));
    const long delay = static_cast<long>(adapter.latency().total);
    const std::vector<float> before = tones(static_cast<std::size_t>(delay) + 2 * kBlock, 11);
    OutputStreams dropped;
    stream(adapter, before, 256, dropped, 6);
    const std::uint64_t missed = adapter.underruns();
    ASSERT_GT(missed, 0U);
    adapter.reset();
    const std::vector<float> after = tones(static_cast<std::size_t>(delay) + 12 * kBlock, 12);
    OutputStreams out;
    stream(adapter, after, 256, out, 7);
    expectDelayedIdentity(after, out, delay);
    EXPECT_EQ(adapter.underruns(), missed + kAfterAMissedBlock);
}

// Real time fed far faster than real time, then offline from a chosen
// frame on (a host starting a bounce): the outputs keep summing to the
// delayed input throughout, and once the engine has caught up (a missed
// block and its warm-up, the latency) every frame is the model's again.
TEST(LiveAdapter, SwitchingToOfflineMidStreamRecoversEveryFrame) {
    const StalledBlocks stalled("3");
    live::Adapter adapter(readModel("identity.onnx"), settingsOf(2, 2, 256, 0));
    const long delay = static_cast<long>(adapter.latency().total);
    const std::size_t switchAt = 20 * kBlock;
    const std::size_t settled = switchAt + static_cast<std::size_t>(delay) + kAfterAMissedBlock + 2 * kBlock;
    const std::vector<float> input = tones(settled + 8 * kBlock, 13);
    OutputStreams out;
    stream(adapter, {input.begin(), input.begin() + 2 * switchAt}, 256, out, 8);
    EXPECT_GT(adapter.underruns(), 0U);  // block 3 at least
    adapter.setOffline(true);
    stream(adapter, {input.begin() + 2 * switchAt, input.begin() + 2 * settled}, 256, out, 9);
    const std::uint64_t missed = adapter.underruns();
    stream(adapter, {input.begin() + 2 * settled, input.end()}, 256, out, 10);
    EXPECT_EQ(adapter.underruns(), missed);
    for (long i = 0; i < static_cast<long>(input.size()); ++i) {
        const float expected = i < 2 * delay ? 0.0F : input[static_cast<std::size_t>(i - 2 * delay)];
        ASSERT_NEAR(out.at(TW_OUTPUT_VOCALS, i) + out.at(TW_OUTPUT_RESIDUAL, i), expected, kTolerance) << i;
        if (i >= 2 * static_cast<long>(settled)) {
            ASSERT_NEAR(out.at(TW_OUTPUT_VOCALS, i), expected, kTolerance) << i;
        }
    }
}

struct RateCase {
    std::uint32_t rate;
    double hertz;  // a tone band_split.onnx puts in `stem` at 44.1 kHz
    int stem;
};

// At any host rate the input comes back after the reported latency, in
// host frames, within what the rate conversion costs (band_split.onnx's
// stems sum to its input), and a frequency keeps its stem: these tones
// would cross a band edge if the model saw the host's samples as 44.1 kHz
// ones.
TEST(LiveAdapter, AnyHostRateGivesTheInputBackWithEachFrequencyInItsStem) {
    const RateCase cases[] = {{22050, 500, TW_OUTPUT_VOCALS},
                              {48000, 2880, TW_OUTPUT_PIANO},
                              {96000, 1000, TW_OUTPUT_DRUM},
                              {192000, 4000, TW_OUTPUT_PIANO}};
    for (const RateCase& c : cases) {
        SCOPED_TRACE(c.rate);
        tw_live_settings settings = settingsOf(2, 2, 512, 1);
        settings.sample_rate = c.rate;
        live::Adapter adapter(readModel("band_split.onnx"), settings);
        const long delay = static_cast<long>(adapter.latency().total);
        std::vector<float> input(2 * (static_cast<std::size_t>(delay) + c.rate / 2));
        for (std::size_t i = 0; i < input.size(); ++i) {
            const double t = static_cast<double>(i / 2) / c.rate + 0.1 * static_cast<double>(i % 2);
            input[i] = static_cast<float>(0.4 * std::sin(2 * kPi * 220 * t) + 0.4 * std::sin(2 * kPi * c.hertz * t));
        }
        OutputStreams out;
        stream(adapter, input, 512, out, c.rate);
        // The step out of silence rings through the band limits for a while.
        std::array<double, TW_OUTPUT_COUNT> energy{};
        for (long i = 2 * (delay + static_cast<long>(c.rate / 10)); i < static_cast<long>(input.size()); ++i) {
            float sum = 0.0F;
            for (int s = TW_OUTPUT_VOCALS; s <= TW_OUTPUT_BASS; ++s) sum += out.at(s, i);
            ASSERT_NEAR(sum, input[static_cast<std::size_t>(i - 2 * delay)], 5e-4) << "sample " << i;
            for (int s = 0; s < TW_OUTPUT_COUNT; ++s) energy[s] += out.at(s, i) * out.at(s, i);
        }
        EXPECT_GT(energy[c.stem], 1e-3 * energy[TW_OUTPUT_MIX]) << "stem " << c.stem;
        for (int s = TW_OUTPUT_DRUM; s <= TW_OUTPUT_BASS; ++s) {
            EXPECT_TRUE(s == c.stem || energy[s] < 1e-3 * energy[TW_OUTPUT_MIX]) << "stem " << s;
        }
    }
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
