// Finding ONNX Runtime at run time. The library is never linked against the
// runtime, so a host can ship its own build of it next to ours under a name
// no other component of the process will load by accident.
#pragma once

#include <onnxruntime_cxx_api.h>

namespace tonwerk {

// The function table version everything in the backend is written against.
constexpr uint32_t kOrtApiVersion = 21;

// Loads the runtime, fetches its function table and hands it to the Ort::
// wrapper classes, on the first successful call; later calls return the
// same table. Throws std::runtime_error when the runtime library cannot be
// loaded.
const OrtApi& initOnnxRuntime();

}  // namespace tonwerk
