// Loads a separation model for the library after checking it against the
// model contract, so a wrong file fails with a clear reason instead of deep
// inside the runtime.
#pragma once

#include <tonwerk/tonwerk_proc_multistem.h>

#include <memory>
#include <string>

namespace tonwerk::tools {

// models/tonwerk-dsp-baseline.onnx in the folder of the running executable.
std::string defaultModelPath();

// Throws inputError when the file cannot be read, does not fit the contract
// (all violations in one line) or the library refuses it.
std::shared_ptr<InferenceContext> loadCheckedModel(const std::string& path, const std::string& key);

}  // namespace tonwerk::tools
