// Loads a separation model for the library after checking it against the
// model contract, so a wrong file fails with a clear reason instead of deep
// inside the runtime.
#pragma once

#include <tonwerk/tonwerk_proc_multistem.h>

#include <memory>
#include <string>

namespace tonwerk::tools {

// The model tonwerk-separate uses unless told otherwise; the build names it.
inline constexpr const char* defaultModelName = TONWERK_DEFAULT_MODEL;

// The file for --model: a path as given, or for a bare name (no folder, no
// extension, no such file here) NAME.onnx among the models that come with the
// program (models/ beside it, share/tonwerk/models/ once installed). Empty
// means the default model.
std::string resolveModelPath(const std::string& nameOrPath);

// Throws inputError when the file cannot be read, does not fit the contract
// (all violations in one line) or the library refuses it.
std::shared_ptr<InferenceContext> loadCheckedModel(const std::string& path, const std::string& key);

}  // namespace tonwerk::tools
