// The dlopen-based pieces of runtime loading, exposed for tests.
#pragma once

#include <onnxruntime_c_api.h>

#include <string>

namespace tonwerk {

// File name of the runtime library that we look for next to our own module.
constexpr const char* kOrtLibraryName = "libonnxruntime_pelagrin.so";

// Absolute path of kOrtLibraryName in the directory of the module (shared
// library or executable) that holds this code.
std::string ortLibraryPath();

// dlopens `path` and resolves OrtGetApiBase. The library stays loaded for
// the rest of the process. Throws std::runtime_error naming `path` and the
// loader's reason when either step fails.
const OrtApiBase* loadOrtApiBase(const std::string& path);

}  // namespace tonwerk
