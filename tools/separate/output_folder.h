// The output folder of a run. Folders the run had to create are removed
// again when it fails, so a failed run leaves the file system as it found it.
#pragma once

#include <filesystem>
#include <vector>

namespace tonwerk::tools {

class OutputFolder {
public:
    // Creates missing levels; throws inputError when a level exists but is
    // not a folder or cannot be created.
    explicit OutputFolder(std::filesystem::path path);
    // Unless keep() was called, removes the levels it created (if empty).
    ~OutputFolder();
    OutputFolder(const OutputFolder&) = delete;
    OutputFolder& operator=(const OutputFolder&) = delete;

    void keep() { kept_ = true; }
    const std::filesystem::path& path() const { return path_; }

private:
    void removeCreated();

    std::filesystem::path path_;
    std::vector<std::filesystem::path> created_;
    bool kept_ = false;
};

}  // namespace tonwerk::tools
