// The folders a run writes into. Folders it had to create are removed again
// when it fails, so a failed run leaves the file system as it found it.
#pragma once

#include <filesystem>
#include <vector>

namespace tonwerk::tools {

class OutputFolders {
public:
    // Creates the missing levels of every folder; throws inputError when a
    // level exists but is not a folder or cannot be created.
    explicit OutputFolders(const std::vector<std::filesystem::path>& folders);
    // Unless keep() was called, removes the levels it created (if empty), last first.
    ~OutputFolders();
    OutputFolders(const OutputFolders&) = delete;
    OutputFolders& operator=(const OutputFolders&) = delete;

    void keep() { kept_ = true; }

private:
    void create(const std::filesystem::path& folder);
    void removeCreated();

    std::vector<std::filesystem::path> created_;
    bool kept_ = false;
};

}  // namespace tonwerk::tools
