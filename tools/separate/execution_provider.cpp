#include "execution_provider.h"

#include <onnxruntime_c_api.h>

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <link.h>

namespace tonwerk::tools {

namespace {

struct GpuProvider {
    const char* runtimeName;
    const char* plainName;
};
// The library's order of attempts.
constexpr GpuProvider gpuProviders[] = {
    {"DmlExecutionProvider", "DirectML"}, {"CUDAExecutionProvider", "CUDA"}, {"ROCmExecutionProvider", "ROCm"}};

constexpr const char* failureMarker = "[INFERENCE_onnx] Failed to init backend: ";

int findRuntime(dl_phdr_info* info, std::size_t, void* found) {
    const std::string path = info->dlpi_name != nullptr ? info->dlpi_name : "";
    const std::string name = TONWERK_ORT_RUNTIME_NAME;
    if (path.size() >= name.size() && path.compare(path.size() - name.size(), name.size(), name) == 0) {
        *static_cast<std::string*>(found) = path;
        return 1;
    }
    return 0;
}

std::vector<std::string> failureReasons(const std::string& log) {
    std::vector<std::string> reasons;
    for (std::size_t at = log.find(failureMarker); at != std::string::npos; at = log.find(failureMarker, at + 1)) {
        const std::size_t start = at + std::strlen(failureMarker);
        reasons.push_back(log.substr(start, log.find('\n', start) - start));
    }
    return reasons;
}

}  // namespace

std::vector<std::string> loadedRuntimeProviders() {
    std::string path;
    dl_iterate_phdr(findRuntime, &path);
    if (path.empty()) return {};
    // Already loaded by the library: this only takes another reference.
    void* runtime = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (runtime == nullptr) return {};
    std::vector<std::string> providers;
    using GetApiBase = const OrtApiBase* (*)();
    const auto getApiBase = reinterpret_cast<GetApiBase>(::dlsym(runtime, "OrtGetApiBase"));
    const OrtApi* api = getApiBase != nullptr ? getApiBase()->GetApi(ORT_API_VERSION) : nullptr;
    char** names = nullptr;
    int count = 0;
    if (api != nullptr && api->GetAvailableProviders(&names, &count) == nullptr) {
        providers.assign(names, names + count);
        if (OrtStatus* status = api->ReleaseAvailableProviders(names, count)) api->ReleaseStatus(status);
    }
    ::dlclose(runtime);
    return providers;
}

std::string describeExecutionProvider(const std::vector<std::string>& runtimeProviders, const std::string& loadLog) {
    if (runtimeProviders.empty()) return {};  // nothing certain to say
    std::vector<std::string> tried;
    for (const GpuProvider& gpu : gpuProviders) {
        if (std::find(runtimeProviders.begin(), runtimeProviders.end(), gpu.runtimeName) != runtimeProviders.end()) {
            tried.push_back(gpu.plainName);
        }
    }
    const std::vector<std::string> reasons = failureReasons(loadLog);
    if (tried.empty()) return "separating on the CPU (this ONNX Runtime offers no GPU provider the library uses)";
    std::string names;
    for (const std::string& name : tried) names += (names.empty() ? "" : " or ") + name;
    if (reasons.size() >= tried.size()) {
        return "separating on the CPU (" + names + " could not be set up: " + reasons.back() + ")";
    }
    if (tried.size() == 1) return "separating on " + tried[0];
    return "separating on a GPU (" + names + ")";
}

}  // namespace tonwerk::tools
