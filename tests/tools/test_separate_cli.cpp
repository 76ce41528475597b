// tonwerk-separate end to end: real files in, real library and runtime, the
// identity test model (vocals = input, the other five silent).
#include "tool_support.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

namespace tonwerk::test {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> allStems = {"vocals",          "drum", "piano",    "acoustic_guitar",
                                           "electric_guitar", "bass", "residual", "mix"};
const std::string identityModel = std::string(TONWERK_TEST_MODELS_DIR) + "/identity.onnx";

class SeparateCli : public ::testing::Test {
protected:
    ScratchFolder scratch{std::string("separate-") + ::testing::UnitTest::GetInstance()->current_test_info()->name()};

    ToolRun separate(const std::vector<std::string>& args) { return runTool("tonwerk-separate", args, scratch.path()); }

    std::map<std::string, TestAudio> readStems(const fs::path& folder, const std::string& base) {
        std::map<std::string, TestAudio> stems;
        for (const std::string& stem : allStems) stems[stem] = readAudio(folder / (base + "." + stem + ".wav"));
        return stems;
    }

    // Every stem has the input's shape and the requested sample format.
    static void expectShapeOf(const TestAudio& input, const std::map<std::string, TestAudio>& stems, int format) {
        for (const auto& [name, stem] : stems) {
            SCOPED_TRACE(name);
            EXPECT_EQ(stem.sampleRate, input.sampleRate);
            EXPECT_EQ(stem.channels, input.channels);
            EXPECT_EQ(stem.frames(), input.frames());
            EXPECT_EQ(stem.format, format);
        }
    }

    static bool allZero(const TestAudio& audio) {
        return std::all_of(audio.samples.begin(), audio.samples.end(), [](float v) { return v == 0.0f; });
    }


    // The summary row of `stem`, split into words.
    static std::vector<std::string> summaryRow(const std::string& out, const std::string& stem) {
        std::vector<std::string> words;
        for (const std::string& line : linesOf(out)) {
            std::istringstream in(line);
            for (std::string word; line.rfind(stem + " ", 0) == 0 && in >> word;) words.push_back(word);
        }
        return words;
    }
};

TEST_F(SeparateCli, FloatStereoAt44100ComesBackThroughTheIdentityModelAndIsScored) {
    const TestAudio input = makeTones(44100, 2, 2.0, 220.0, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    writeAudio(scratch / "song.wav", input);
    fs::create_directory(scratch / "refs");
    writeAudio(scratch / "refs" / "vocals.wav", input);
    writeAudio(scratch / "refs" / "drum.wav", input);  // the drum stem is silent: SDR exactly 0 dB

    const ToolRun run = separate({(scratch / "song.wav").string(), "-o", (scratch / "out").string(), "--model",
                                  identityModel, "--reference-dir", (scratch / "refs").string()});
    ASSERT_EQ(run.exitStatus, 0) << run.err;

    std::vector<std::string> names;
    for (const std::string& stem : allStems) names.push_back("song." + stem + ".wav");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(folderEntries(scratch / "out"), names);  // and no temporary files
    const auto stems = readStems(scratch / "out", "song");
    expectShapeOf(input, stems, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_LE(maxAbsDifference(stems.at("vocals").samples, input.samples), 1e-6f);
    for (const char* silent : {"drum", "piano", "acoustic_guitar", "electric_guitar", "bass"}) {
        EXPECT_TRUE(allZero(stems.at(silent))) << silent;
    }
    std::vector<float> restored = stems.at("mix").samples;
    for (std::size_t i = 0; i < restored.size(); ++i) restored[i] += stems.at("residual").samples[i];
    EXPECT_LE(maxAbsDifference(restored, input.samples), 1e-6f);

    const auto vocalsRow = summaryRow(run.out, "vocals");
    ASSERT_EQ(vocalsRow.size(), 4u) << run.out;
    EXPECT_GT(std::stod(vocalsRow[3]), 100.0);
    EXPECT_EQ(summaryRow(run.out, "drum"), (std::vector<std::string>{"drum", "silent", "0.000", "0.00"}));
    EXPECT_EQ(summaryRow(run.out, "piano").back(), "-");
}

// The stems keep the input's rate, channels and sample format unless --format
// overrides it. Two rate conversions and one more 16-bit rounding stay within
// two steps of 2^-15; 24-bit and float within 1e-5.
TEST_F(SeparateCli, StemsKeepRateChannelsAndSampleFormat) {
    struct Case {
        int rate, channels, format;
        std::vector<std::string> extraArgs;
        int outFormat;
        float tolerance;
    };
    const std::vector<Case> cases = {
        {22050, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {}, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 6.2e-5f},
        {48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_24, {}, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 1e-5f},
        {48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_24, {"--format", "float", "--block", "1000"},
         SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1e-5f},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        const TestAudio input = makeTones(c.rate, c.channels, 1.5, 180.0 * c.channels, c.format);
        writeAudio(scratch / "take.wav", input);
        const fs::path out = scratch / std::to_string(i);
        std::vector<std::string> args = {(scratch / "take.wav").string(), "-o", out.string(), "--model", identityModel};
        args.insert(args.end(), c.extraArgs.begin(), c.extraArgs.end());
        const ToolRun run = separate(args);
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        const auto stems = readStems(out, "take");
        expectShapeOf(input, stems, c.outFormat);
        EXPECT_LE(maxAbsDifference(stems.at("vocals").samples, readAudio(scratch / "take.wav").samples), c.tolerance);
    }
}

TEST_F(SeparateCli, UnselectedStemsGoToTheResidualAndAKeyedModelLoads) {
    const ToolRun scramble = runTool("tonwerk-model", {"scramble", identityModel,
                                                       (scratch / "identity.bin").string(), "--key", "k3y!"},
                                     scratch.path());
    ASSERT_EQ(scramble.exitStatus, 0) << scramble.err;
    const TestAudio input = makeTones(44100, 2, 1.0, 440.0, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    writeAudio(scratch / "in.wav", input);

    const ToolRun run = separate({(scratch / "in.wav").string(), "-o", (scratch / "out").string(), "--model",
                                  (scratch / "identity.bin").string(), "--key", "k3y!", "--stems", "drum,bass"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;

    const auto stems = readStems(scratch / "out", "in");
    EXPECT_TRUE(allZero(stems.at("vocals")));
    EXPECT_TRUE(allZero(stems.at("mix")));
    EXPECT_LE(maxAbsDifference(stems.at("residual").samples, input.samples), 1e-6f);
}

// Bad input exits with 3, usage errors with 2; either way one line, and not
// even the output folder it had to create is left behind.
TEST_F(SeparateCli, FailuresSayOneLineAndLeaveNothingBehind) {
    writeAudio(scratch / "good.wav", makeTones(44100, 2, 0.5, 440.0, SF_FORMAT_WAV | SF_FORMAT_FLOAT));
    writeAudio(scratch / "six.wav", makeTones(44100, 6, 0.2, 440.0, SF_FORMAT_WAV | SF_FORMAT_PCM_16));
    std::ofstream(scratch / "notes.wav") << "just some text, not audio\n";
    std::ofstream(scratch / "plain-file") << "x";
    ASSERT_EQ(runTool("tonwerk-model", {"scramble", identityModel, (scratch / "keyed.onnx").string(), "--key", "right"},
                      scratch.path()).exitStatus, 0);
    const std::string good = (scratch / "good.wav").string(), out = (scratch / "new" / "out").string();
    const auto argsFor = [&](const std::string& input, std::vector<std::string> model) {
        std::vector<std::string> args = {(scratch / input).string(), "-o", out};
        args.insert(args.end(), model.begin(), model.end());
        return args;
    };
    const std::vector<std::string> identity = {"--model", identityModel};
    struct Case {
        std::vector<std::string> args;
        int exitStatus;
        std::string expectedText;  // part of the one error line
    };
    const std::vector<Case> cases = {
        {argsFor("absent.wav", identity), 3, "absent.wav: no such file"},
        {argsFor("notes.wav", identity), 3, "not a readable audio file"},
        {argsFor("six.wav", identity), 3, "has 6 channels; only mono and stereo"},
        {argsFor("good.wav", {"--model", std::string(TONWERK_TEST_MODELS_DIR) + "/broken_misnamed_output.onnx"}), 3,
         "does not fit the model contract: output \"bass_output\" is missing; unexpected output \"bass_out\""},
        {argsFor("good.wav", {"--model", (scratch / "keyed.onnx").string(), "--key", "wrong"}), 3,
         "not a readable ONNX model"},
        {argsFor("good.wav", {"--model", (scratch / "nothing.onnx").string()}), 3, "no such file"},
        {{}, 2, ""},
        {{good, "--frobnicate"}, 2, ""},
        {{good, "other.wav"}, 2, ""},
        {{good, "--stems", "vocals,voice"}, 2, ""},
        {{good, "--format", "mp3"}, 2, ""},
        {{good, "--block", "0"}, 2, ""},
        {{good, "-o"}, 2, ""},
    };
    for (const Case& c : cases) {
        const ToolRun run = separate(c.args);
        SCOPED_TRACE(run.err);
        EXPECT_EQ(run.exitStatus, c.exitStatus);
        EXPECT_EQ(linesOf(run.err).size(), 1u);
        EXPECT_NE(run.err.find(c.expectedText), std::string::npos);
        if (c.exitStatus == 3) {
            EXPECT_EQ(run.err.rfind("tonwerk-separate: ", 0), 0u);
            EXPECT_EQ(run.out, "");
        }
        EXPECT_FALSE(fs::exists(scratch / "new"));
    }

    // Only known once the separator exists, after the outputs were opened.
    const ToolRun tooLarge = separate(argsFor("good.wav", {"--model", identityModel, "--block", "300000"}));
    EXPECT_EQ(tooLarge.exitStatus, 2);
    EXPECT_NE(tooLarge.err.find("tonwerk-separate: --block may be at most 257024 frames"), std::string::npos);
    EXPECT_FALSE(fs::exists(scratch / "new"));

    const ToolRun unwritable =
        separate({good, "-o", (scratch / "plain-file" / "out").string(), "--model", identityModel});
    EXPECT_EQ(unwritable.exitStatus, 3);
    EXPECT_EQ(unwritable.err, "tonwerk-separate: output folder " + (scratch / "plain-file" / "out").string() + ": " +
                                  (scratch / "plain-file").string() + " is not a folder\n");
}

}  // namespace
}  // namespace tonwerk::test
