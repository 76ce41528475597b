#include "output_folders.h"

#include "tool_error.h"

#include <algorithm>

namespace tonwerk::tools {

namespace fs = std::filesystem;

OutputFolders::OutputFolders(const std::vector<fs::path>& folders) {
    try {
        for (const fs::path& folder : folders) create(folder);
    } catch (...) {
        removeCreated();
        throw;
    }
}

OutputFolders::~OutputFolders() {
    if (!kept_) removeCreated();
}

void OutputFolders::create(const fs::path& folder) {
    std::vector<fs::path> missing;
    fs::path level = fs::absolute(folder);
    std::error_code ec;
    while (!level.empty() && !fs::exists(level, ec)) {
        missing.push_back(level);
        if (level == level.parent_path()) break;
        level = level.parent_path();
    }
    if (!level.empty() && fs::exists(level, ec) && !fs::is_directory(level, ec)) {
        throw inputError("output folder " + folder.string() + ": " + level.string() + " is not a folder");
    }
    std::reverse(missing.begin(), missing.end());
    for (const fs::path& path : missing) {
        if (!fs::create_directory(path, ec) && ec) {
            throw inputError("cannot create output folder " + folder.string() + ": " + ec.message());
        }
        created_.push_back(path);
    }
}

void OutputFolders::removeCreated() {
    std::error_code ignored;
    for (auto it = created_.rbegin(); it != created_.rend(); ++it) fs::remove(*it, ignored);
    created_.clear();
}

}  // namespace tonwerk::tools
