// Runs a built tool as a child process and captures what it says.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tonwerk::test {

struct ToolRun {
    int exitStatus = -1;  // -1: did not exit normally
    std::string out;
    std::string err;
};

// `program` is a file name in TONWERK_BUILD_DIR; output is collected in
// files under `scratch`.
ToolRun runTool(const std::string& program, const std::vector<std::string>& args,
                const std::filesystem::path& scratch);

// The lines of `text`, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

// A fresh, empty folder for one test, removed by the destructor.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& name);
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Names of the entries of `folder`, sorted; empty when it does not exist.
std::vector<std::string> folderEntries(const std::filesystem::path& folder);

}  // namespace tonwerk::test
