// Everything a run will read and write, worked out before the model loads:
// the input files (folders expanded), each one's stem format and stem file
// names, and what to do about files that exist. Mistakes in any of it fail
// the run before it has written anything.
#pragma once

#include "options.h"
#include "output_format.h"
#include "stems.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tonwerk::tools {

struct InputPlan {
    std::string input;                                        // the file as found
    OutputFormat format;                                      // of its stems
    std::array<std::filesystem::path, stemNames.size()> outputs;  // empty where a stem is not written
    bool skip = false;  // --skip-existing found all its stems, so nothing is left to write
};

// Throws usageError for a malformed --name, names that collide or a
// --reference-dir with several inputs; inputError for a --json file whose
// folder does not exist, for inputs that are
// missing, unreadable or have more than two channels, for formats the
// installed libsndfile cannot write, and for existing stem files unless
// --overwrite or --skip-existing say what to do with them. --skip-existing
// leaves every existing file alone: only the missing stems of an input are
// written, and an input with none missing is skipped.
std::vector<InputPlan> planRun(const SeparateOptions& options);

}  // namespace tonwerk::tools
