// tonwerk-separate end to end: real files in, real library and runtime, the
// identity test model (vocals = input, the other five silent).
#include "test_audio.h"
#include "tool_runner.h"

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

    static std::vector<std::string> stemFileNames(const std::string& base) {
        std::vector<std::string> names;
        for (const std::string& stem : allStems) names.push_back(base + "." + stem + ".wav");
        std::sort(names.begin(), names.end());
        return names;
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

    static std::vector<float> sum(const TestAudio& a, const TestAudio& b) {
        std::vector<float> total(a.samples.size());
        for (std::size_t i = 0; i < total.size(); ++i) total[i] = a.samples[i] + b.samples[i];
        return total;
    }

    // The summary row of `stem`, split into words.
    static std::vector<std::string> summaryRow(const std::string& out, const std::string& stem) {
        for (const std::string& line : linesOf(out)) {
            if (line.rfind(stem + " ", 0) == 0) {
                std::vector<std::string> words;
                std::istringstream in(line);
                for (std::string word; in >> word;) words.push_back(word);
                return words;
            }
        }
        return {};
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

    EXPECT_EQ(folderEntries(scratch / "out"), stemFileNames("song"));  // and no temporary files
    const auto stems = readStems(scratch / "out", "song");
    expectShapeOf(input, stems, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_LE(maxAbsDifference(stems.at("vocals").samples, input.samples), 1e-6f);
    for (const char* silent : {"drum", "piano", "acoustic_guitar", "electric_guitar", "bass"}) {
        EXPECT_TRUE(allZero(stems.at(silent))) << silent;
    }
    EXPECT_LE(maxAbsDifference(sum(stems.at("residual"), stems.at("mix")), input.samples), 1e-6f);

    const auto vocalsRow = summaryRow(run.out, "vocals");
    ASSERT_EQ(vocalsRow.size(), 4u) << run.out;
    EXPECT_GT(std::stod(vocalsRow[3]), 100.0);
    EXPECT_EQ(summaryRow(run.out, "drum"), (std::vector<std::string>{"drum", "silent", "0.000", "0.00"}));
    EXPECT_EQ(summaryRow(run.out, "piano").back(), "-");
}

TEST_F(SeparateCli, Mono16BitAt22050StaysMono16BitAt22050) {
    const TestAudio input = makeTones(22050, 1, 2.0, 330.0, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    writeAudio(scratch / "voice.wav", input);

    const ToolRun run = separate({(scratch / "voice.wav").string(), "-o", scratch.path().string(), "--model",
                                  identityModel});
    ASSERT_EQ(run.exitStatus, 0) << run.err;

    const auto stems = readStems(scratch.path(), "voice");
    expectShapeOf(input, stems, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    // Two rate conversions and one more 16-bit rounding: within two steps of 2^-15.
    EXPECT_LE(maxAbsDifference(stems.at("vocals").samples, readAudio(scratch / "voice.wav").samples), 6.2e-5f);
}

TEST_F(SeparateCli, Stereo24BitAt48000Keeps24BitsAndFormatOptionOverrides) {
    const TestAudio input = makeTones(48000, 2, 1.5, 180.0, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    writeAudio(scratch / "take.wav", input);
    const TestAudio stored = readAudio(scratch / "take.wav");

    const ToolRun run = separate({(scratch / "take.wav").string(), "-o", (scratch / "pcm").string(), "--model",
                                  identityModel});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto stems = readStems(scratch / "pcm", "take");
    expectShapeOf(input, stems, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    EXPECT_LE(maxAbsDifference(stems.at("vocals").samples, stored.samples), 1e-5f);

    const ToolRun asFloat = separate({(scratch / "take.wav").string(), "-o", (scratch / "float").string(),
                                      "--model", identityModel, "--format", "float", "--block", "1000"});
    ASSERT_EQ(asFloat.exitStatus, 0) << asFloat.err;
    const auto floatStems = readStems(scratch / "float", "take");
    expectShapeOf(input, floatStems, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_LE(maxAbsDifference(floatStems.at("vocals").samples, stored.samples), 1e-5f);
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

struct FailureCase {
    std::string name;
    std::vector<std::string> extraArgs;  // after INPUT and -o
    std::string input;                   // file name in the scratch folder
    std::string expectedText;            // part of the one error line
};

TEST_F(SeparateCli, BadInputFailsWithOneLineAndLeavesNothingBehind) {
    writeAudio(scratch / "good.wav", makeTones(44100, 2, 0.5, 440.0, SF_FORMAT_WAV | SF_FORMAT_FLOAT));
    writeAudio(scratch / "six.wav", makeTones(44100, 6, 0.2, 440.0, SF_FORMAT_WAV | SF_FORMAT_PCM_16));
    std::ofstream(scratch / "notes.wav") << "just some text, not audio\n";
    std::ofstream(scratch / "plain-file") << "x";
    const ToolRun scramble = runTool("tonwerk-model", {"scramble", identityModel,
                                                       (scratch / "keyed.onnx").string(), "--key", "right"},
                                     scratch.path());
    ASSERT_EQ(scramble.exitStatus, 0);

    const std::vector<FailureCase> cases = {
        {"missing input", {}, "absent.wav", "absent.wav: no such file"},
        {"not audio", {}, "notes.wav", "not a readable audio file"},
        {"six channels", {}, "six.wav", "has 6 channels; only mono and stereo"},
        {"non-conforming model",
         {"--model", std::string(TONWERK_TEST_MODELS_DIR) + "/broken_misnamed_output.onnx"},
         "good.wav",
         "does not fit the model contract: output \"bass_output\" is missing; unexpected output \"bass_out\""},
        {"wrong key",
         {"--model", (scratch / "keyed.onnx").string(), "--key", "wrong"},
         "good.wav",
         "not a readable ONNX model"},
        {"missing model", {"--model", (scratch / "nothing.onnx").string()}, "good.wav", "no such file"},
    };
    for (const FailureCase& failure : cases) {
        SCOPED_TRACE(failure.name);
        std::vector<std::string> args = {(scratch / failure.input).string(), "-o",
                                         (scratch / "new" / "out").string()};
        args.insert(args.end(), failure.extraArgs.begin(), failure.extraArgs.end());
        if (failure.extraArgs.empty()) args.insert(args.end(), {"--model", identityModel});
        const ToolRun run = separate(args);
        EXPECT_EQ(run.exitStatus, 3);
        ASSERT_EQ(linesOf(run.err).size(), 1u) << run.err;
        EXPECT_EQ(run.err.rfind("tonwerk-separate: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(failure.expectedText), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
        // Not even the output folder it had to create is left.
        EXPECT_FALSE(fs::exists(scratch / "new"));
    }

    const ToolRun unwritable = separate({(scratch / "good.wav").string(), "-o", (scratch / "plain-file" / "out").string(),
                                         "--model", identityModel});
    EXPECT_EQ(unwritable.exitStatus, 3);
    EXPECT_EQ(unwritable.err, "tonwerk-separate: output folder " + (scratch / "plain-file" / "out").string() + ": " +
                                  (scratch / "plain-file").string() + " is not a folder\n");
}

TEST_F(SeparateCli, UsageErrorsExitWith2) {
    writeAudio(scratch / "in.wav", makeTones(44100, 2, 0.5, 440.0, SF_FORMAT_WAV | SF_FORMAT_FLOAT));
    const std::string in = (scratch / "in.wav").string();
    const std::vector<std::vector<std::string>> cases = {
        {},
        {in, "--frobnicate"},
        {in, "other.wav"},
        {in, "--stems", "vocals,voice"},
        {in, "--format", "mp3"},
        {in, "--block", "0"},
        {in, "-o"},
    };
    for (const auto& args : cases) {
        const ToolRun run = separate(args);
        EXPECT_EQ(run.exitStatus, 2) << run.err;
        EXPECT_EQ(linesOf(run.err).size(), 1u) << run.err;
    }

    // Only known once the separator exists, after the outputs were opened:
    // they must be gone again.
    const ToolRun tooLarge =
        separate({in, "-o", (scratch / "out").string(), "--model", identityModel, "--block", "300000"});
    EXPECT_EQ(tooLarge.exitStatus, 2);
    EXPECT_NE(tooLarge.err.find("tonwerk-separate: --block may be at most 257024 frames"), std::string::npos);
    EXPECT_FALSE(fs::exists(scratch / "out"));
}

}  // namespace
}  // namespace tonwerk::test
