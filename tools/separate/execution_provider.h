// Which execution provider the library ended up with, told in one line.
//
// The library tries every GPU provider its ONNX Runtime offers (DirectML,
// CUDA, ROCm, in that order), keeps the last one that worked and otherwise
// runs on the CPU; each failed attempt leaves one error record in its log.
// The interface does not say which provider won, so the tool asks the
// runtime the library loaded for its providers and counts the failures.
#pragma once

#include <string>
#include <vector>

namespace tonwerk::tools {

// The providers of the ONNX Runtime loaded into this process, in the
// runtime's order; empty when none is loaded or it cannot be asked.
std::vector<std::string> loadedRuntimeProviders();

// A line such as "separating on the CPU (CUDA could not be set up: ...)"
// from the runtime's providers and the library's log of the model load;
// empty when the runtime's providers are unknown.
std::string describeExecutionProvider(const std::vector<std::string>& runtimeProviders,
                                      const std::string& loadLog);

}  // namespace tonwerk::tools
