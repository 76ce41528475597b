// Windows: onnxruntime_pelagrin.dll is a delay-loaded import (linker option
// /DELAYLOAD:onnxruntime_pelagrin.dll, import library generated from
// onnxruntime_pelagrin.def), so the process starts without it and the
// loader maps it on the first call of OrtGetApiBase.
#include "inference/runtime_loader.h"

#include <windows.h>

#include <delayimp.h>

#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

constexpr const char* kOrtDllName = "onnxruntime_pelagrin.dll";

// A delay-load failure surfaces as a structured exception in the middle of
// the first call. Resolving the imports up front turns it into an HRESULT
// that we can report as an ordinary error.
void loadRuntimeImports() {
    const HRESULT hr = __HrLoadAllImportsForDll(kOrtDllName);
    if (FAILED(hr)) {
        throw std::runtime_error(std::string("Failed to load ONNX Runtime from ") + kOrtDllName +
                                 ": HRESULT=" + std::to_string(static_cast<unsigned long>(hr)));
    }
}

// Done once per process (a failed attempt is retried by the next call).
const OrtApi* loadProcessApi() {
    loadRuntimeImports();
    const OrtApi* api = OrtGetApiBase()->GetApi(kOrtApiVersion);
    Ort::InitApi(api);
    return api;
}

}  // namespace

const OrtApi& initOnnxRuntime() {
    static const OrtApi* const api = loadProcessApi();
    return *api;
}

}  // namespace tonwerk
