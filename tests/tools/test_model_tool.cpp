// tonwerk-model on the generated test models.
#include "tool_support.h"

#include <gtest/gtest.h>


namespace tonwerk::test {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> dimensionLines(const std::string& detail) {
    std::vector<std::string> lines;
    for (const char* output : {"vocals_output", "drum_output", "piano_output", "acoustic_guitar_output",
                               "electric_guitar_output", "bass_output"}) {
        lines.push_back("  - output \"" + std::string(output) + "\" " + detail);
    }
    return lines;
}

class ModelTool : public ToolTest {
protected:
    ToolRun tool(const std::vector<std::string>& args) { return run("tonwerk-model", args); }
};

TEST_F(ModelTool, CheckAcceptsConformingModelsAndNamesEveryViolationOfTheBrokenOnes) {
    struct Case {
        std::string name;
        std::vector<std::string> violations;
    };
    std::vector<std::string> dynamic = {"  - input \"unified_input\" dimension 0 is free (\"batch\"), expected 1"};
    for (const std::string& line : dimensionLines("dimension 0 is free (\"batch\"), expected 1")) dynamic.push_back(line);
    const std::vector<Case> cases = {
        {"broken_missing_flag", {"  - input \"electric_guitar_flag\" is missing"}},
        {"broken_misnamed_output", {"  - output \"bass_output\" is missing", "  - unexpected output \"bass_out\""}},
        {"broken_dynamic_output", dynamic},
        {"broken_oversized_output", dimensionLines("dimension 3 is 4096, expected 2048")},
        {"identity", {}},
        {"flag_gated", {}},
        {"tonwerk-dsp-baseline", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ToolRun run = tool({"check", testModel(c.name)});
        const std::size_t n = c.violations.size();
        EXPECT_EQ(run.exitStatus, n == 0 ? 0 : 1);
        std::vector<std::string> expected = {
            testModel(c.name) + (n == 0 ? ": fits the model contract"
                                    : ": " + std::to_string(n) + (n == 1 ? " violation" : " violations") +
                                          " of the model contract")};
        expected.insert(expected.end(), c.violations.begin(), c.violations.end());
        EXPECT_EQ(linesOf(run.out), expected);
    }
}

TEST_F(ModelTool, ScrambleAndUnscrambleRoundTripWithTheKey) {
    const fs::path scrambled = scratch / "scrambled.bin";
    const fs::path restored = scratch / "restored.onnx";
    ASSERT_EQ(tool({"scramble", testModel("identity"), scrambled.string(), "--key", "Ab"}).exitStatus, 0);
    const std::string original = fileText(testModel("identity"));
    const std::string mixed = fileText(scrambled);
    ASSERT_EQ(mixed.size(), original.size());
    for (std::size_t i = 0; i < original.size(); ++i) {
        ASSERT_EQ(static_cast<unsigned char>(mixed[i] ^ original[i]), i % 2 == 0 ? 'A' : 'b') << "byte " << i;
    }

    const ToolRun plainCheck = tool({"check", scrambled.string()});
    EXPECT_EQ(plainCheck.exitStatus, 1);
    EXPECT_NE(plainCheck.out.find("not a readable ONNX model"), std::string::npos) << plainCheck.out;
    EXPECT_EQ(tool({"check", scrambled.string(), "--key", "Ab"}).exitStatus, 0);

    ASSERT_EQ(tool({"unscramble", scrambled.string(), restored.string(), "--key", "Ab"}).exitStatus, 0);
    EXPECT_EQ(fileText(restored), original);
    EXPECT_EQ(folderEntries(scratch), (std::vector<std::string>{"restored.onnx", "scrambled.bin"}));

    // In place works, through another spelling of the same path too, but never silently.
    const ToolRun inPlace = tool({"unscramble", scrambled.string(), (scratch / "." / "scrambled.bin").string(), "--key",
                                  "Ab"});
    EXPECT_EQ(inPlace.exitStatus, 0);
    EXPECT_EQ(inPlace.err, "tonwerk-model: warning: IN and OUT are the same file; " + scrambled.string() +
                               " is replaced by its unscrambled bytes\n");
    EXPECT_EQ(fileText(scrambled), original);
}

TEST_F(ModelTool, UsageAndFileErrors) {
    EXPECT_EQ(tool({}).exitStatus, 2);
    EXPECT_EQ(tool({"scramble", testModel("identity"), (scratch / "x").string()}).exitStatus, 2);
    EXPECT_EQ(tool({"inspect", testModel("identity")}).exitStatus, 2);
    EXPECT_EQ(tool({"check", testModel("identity"), "--key", ""}).exitStatus, 2);
    const ToolRun missing = tool({"check", (scratch / "none.onnx").string()});
    EXPECT_EQ(missing.exitStatus, 3);
    EXPECT_EQ(linesOf(missing.err).size(), 1u);
    EXPECT_EQ(tool({"scramble", testModel("identity"), (scratch / "no" / "dir" / "x").string(), "--key", "k"}).exitStatus,
              3);
}

}  // namespace
}  // namespace tonwerk::test
