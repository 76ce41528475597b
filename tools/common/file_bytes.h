// Whole-file reads and all-or-nothing writes for model files.
#pragma once

#include <string>
#include <vector>

namespace tonwerk::tools {

// Throws inputError naming the path and the system's reason.
std::vector<unsigned char> readFileBytes(const std::string& path);

// Writes to a temporary name beside `path` and renames it into place, so a
// failed write never leaves a truncated file under the final name.
void writeFileBytes(const std::string& path, const std::vector<unsigned char>& bytes);

}  // namespace tonwerk::tools
