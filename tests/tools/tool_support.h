// Running the built tools as child processes, and the audio files they read and write.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tonwerk::test {

struct ToolRun {
    int exitStatus = -1;  // -1: did not exit normally
    std::string out;
    std::string err;
};

std::string fileText(const std::filesystem::path& path);
std::vector<std::string> linesOf(const std::string& text);

// Names of the entries of `folder`, sorted; empty when it does not exist.
std::vector<std::string> folderEntries(const std::filesystem::path& folder);

// A generated test model by name ("identity" for build/models/identity.onnx).
std::string testModel(const std::string& name);

// Each test runs the built tools (file names in TONWERK_BUILD_DIR) in a
// fresh scratch folder of its own, removed when the test ends.
class ToolTest : public ::testing::Test {
protected:
    ToolTest();
    ~ToolTest() override;
    ToolRun run(const std::string& program, const std::vector<std::string>& args) const;
    const std::filesystem::path scratch;
};

struct TestAudio {
    int sampleRate = 0;
    int channels = 0;
    int format = 0;              // libsndfile format word (major | subtype)
    std::vector<float> samples;  // interleaved
    std::size_t frames() const { return channels == 0 ? 0 : samples.size() / static_cast<std::size_t>(channels); }
};

void writeAudio(const std::filesystem::path& path, const TestAudio& audio);
TestAudio readAudio(const std::filesystem::path& path);

// Tones faded in and out over 50 ms, so resampling has no edges to ring
// at: channel c holds a sine of baseHz * (c + 1) plus a quieter octave.
TestAudio makeTones(int sampleRate, int channels, double seconds, double baseHz, int format);

// Largest |a - b| over all samples; the two must have the same size.
float maxAbsDifference(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace tonwerk::test
