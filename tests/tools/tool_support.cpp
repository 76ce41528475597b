#include "tool_support.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sndfile.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace tonwerk::test {

namespace fs = std::filesystem;

std::string fileText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Through the shell, every argument single-quoted; its output lands in files in the scratch folder.
ToolRun ToolTest::run(const std::string& program, const std::vector<std::string>& args) const {
    const auto quoted = [](std::string text) {
        for (std::size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4) text.replace(at, 1, "'\\''");
        return "'" + text + "'";
    };
    const fs::path outPath = scratch / ".tool-stdout", errPath = scratch / ".tool-stderr";
    std::string command = quoted((fs::path(TONWERK_BUILD_DIR) / program).string());
    for (const std::string& arg : args) command += " " + quoted(arg);
    const int status = std::system((command + " >" + quoted(outPath) + " 2>" + quoted(errPath)).c_str());
    ToolRun run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, fileText(outPath), fileText(errPath)};
    fs::remove(outPath);
    fs::remove(errPath);
    return run;
}

std::string testModel(const std::string& name) { return std::string(TONWERK_TEST_MODELS_DIR) + "/" + name + ".onnx"; }

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

ToolTest::ToolTest()
    : scratch(fs::path(TONWERK_BUILD_DIR) / "tests" / "scratch" /
              (std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" +
               std::to_string(::getpid()))) {
    fs::remove_all(scratch);
    fs::create_directories(scratch);
}

ToolTest::~ToolTest() {
    std::error_code ignored;
    fs::remove_all(scratch, ignored);
}

std::vector<std::string> folderEntries(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) return names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void writeAudio(const std::filesystem::path& path, const TestAudio& audio) {
    SF_INFO info{};
    info.samplerate = audio.sampleRate;
    info.channels = audio.channels;
    info.format = audio.format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) throw std::runtime_error("cannot write " + path.string() + ": " + sf_strerror(nullptr));
    sf_writef_float(file, audio.samples.data(), static_cast<sf_count_t>(audio.frames()));
    sf_close(file);
}

TestAudio readAudio(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) throw std::runtime_error("cannot read " + path.string() + ": " + sf_strerror(nullptr));
    TestAudio audio;
    audio.sampleRate = info.samplerate;
    audio.channels = info.channels;
    audio.format = info.format;
    audio.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(file, audio.samples.data(), info.frames);
    sf_close(file);
    return audio;
}

TestAudio makeTones(int sampleRate, int channels, double seconds, double baseHz, int format) {
    TestAudio audio;
    audio.sampleRate = sampleRate;
    audio.channels = channels;
    audio.format = format;
    const std::size_t frames = static_cast<std::size_t>(seconds * sampleRate);
    const double fade = 0.05 * sampleRate;
    audio.samples.resize(frames * static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / sampleRate;
        const double edge = std::min({1.0, static_cast<double>(i) / fade, static_cast<double>(frames - 1 - i) / fade});
        const double gain = 0.5 - 0.5 * std::cos(M_PI * edge);
        for (int c = 0; c < channels; ++c) {
            const double f = baseHz * (c + 1);
            const double value = 0.4 * std::sin(2 * M_PI * f * t) + 0.1 * std::sin(4 * M_PI * f * t);
            audio.samples[i * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)] =
                static_cast<float>(gain * value);
        }
    }
    return audio;
}

float maxAbsDifference(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) throw std::invalid_argument("maxAbsDifference: sizes differ");
    float largest = 0.0f;
    for (std::size_t i = 0; i < a.size(); ++i) largest = std::max(largest, std::fabs(a[i] - b[i]));
    return largest;
}

}  // namespace tonwerk::test
