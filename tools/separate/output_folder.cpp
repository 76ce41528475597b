#include "output_folder.h"

#include "tool_error.h"

#include <algorithm>

namespace tonwerk::tools {

namespace fs = std::filesystem;

OutputFolder::OutputFolder(fs::path path) : path_(std::move(path)) {
    std::vector<fs::path> missing;
    fs::path level = fs::absolute(path_);
    std::error_code ec;
    while (!level.empty() && !fs::exists(level, ec)) {
        missing.push_back(level);
        if (level == level.parent_path()) break;
        level = level.parent_path();
    }
    if (!level.empty() && fs::exists(level, ec) && !fs::is_directory(level, ec)) {
        throw inputError("output folder " + path_.string() + ": " + level.string() + " is not a folder");
    }
    std::reverse(missing.begin(), missing.end());
    for (const fs::path& folder : missing) {
        if (!fs::create_directory(folder, ec) && ec) {
            removeCreated();
            throw inputError("cannot create output folder " + path_.string() + ": " + ec.message());
        }
        created_.push_back(folder);
    }
}

OutputFolder::~OutputFolder() {
    if (!kept_) removeCreated();
}

void OutputFolder::removeCreated() {
    std::error_code ignored;
    for (auto it = created_.rbegin(); it != created_.rend(); ++it) fs::remove(*it, ignored);
    created_.clear();
}

}  // namespace tonwerk::tools
