// Appending the DirectML execution provider to session options.
#pragma once

#include <onnxruntime_cxx_api.h>

namespace tonwerk {

// Sets the options DirectML needs (sequential execution, no memory pattern)
// and appends the provider for `deviceIndex`. The provider table lookup and
// the append itself are not checked: when they fail the options stay as
// they are and the session is later built without DirectML.
void appendDirectMl(Ort::SessionOptions& options, int deviceIndex);

}  // namespace tonwerk
