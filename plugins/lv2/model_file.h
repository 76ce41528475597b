// Model files: the one the bundle ships and any other the user picks.
#pragma once

#include <string>
#include <vector>

namespace tonwerk::lv2 {

// The model inside the bundle, found by the bundle path the host passes.
std::string bundleModelPath(const char* bundlePath);

// The whole file; throws std::runtime_error naming the path.
std::vector<unsigned char> readModelFile(const std::string& path);

}  // namespace tonwerk::lv2
