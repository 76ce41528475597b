#include "inference/runtime_loader.h"
#include "inference/runtime_loader_posix.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

std::string directoryOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string lastLoaderError() {
    const char* reason = dlerror();
    return reason != nullptr ? reason : "unknown loader error";
}

// The loader reports a module by the path it was opened with: libraries
// usually by an absolute one, the main program by its argv[0], which may be
// relative or, when found through PATH, a bare name.
std::string absoluteModulePath(const std::string& reported) {
    char resolved[PATH_MAX];
    if (reported.find('/') == std::string::npos) {
        const ssize_t length = readlink("/proc/self/exe", resolved, sizeof resolved - 1);
        if (length > 0) return std::string(resolved, static_cast<std::size_t>(length));
    } else if (reported.front() != '/' && realpath(reported.c_str(), resolved) != nullptr) {
        return resolved;
    }
    return reported;
}

// Done once per process (a failed attempt is retried by the next call). The
// runtime is never unloaded: sessions of other contexts may still live in it.
// Its builds collect usage data by default: a log file in /tmp, a device id
// and a database in the user's home, and threads that send it all out. A
// plugin in a studio must do none of that, so it is switched off before the
// first environment is made, unless the host has chosen for itself.
const OrtApi* loadProcessApi() {
    setenv("ORT_DISABLE_TELEMETRY", "1", 0);
    const OrtApi* api = loadOrtApiBase(ortLibraryPath())->GetApi(kOrtApiVersion);
    Ort::InitApi(api);
    return api;
}

}  // namespace

std::string ortLibraryPath() {
    Dl_info info{};
    // Any function of ours names the module we were linked into: the shared
    // library in production, the test executable for static unit tests.
    if (dladdr(reinterpret_cast<void*>(&ortLibraryPath), &info) == 0 || info.dli_fname == nullptr) {
        throw std::runtime_error("Cannot locate the module containing the inference backend");
    }
    return directoryOf(absoluteModulePath(info.dli_fname)) + "/" + kOrtLibraryName;
}

const OrtApiBase* loadOrtApiBase(const std::string& path) {
    dlerror();  // drop a stale message so the one we report belongs to this call
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error("Failed to load ONNX Runtime from " + path + ": " + lastLoaderError());
    }
    using GetApiBaseFn = const OrtApiBase* (*)();
    auto* getApiBase = reinterpret_cast<GetApiBaseFn>(dlsym(handle, "OrtGetApiBase"));
    if (getApiBase == nullptr) {
        const std::string reason = lastLoaderError();
        dlclose(handle);
        throw std::runtime_error("Failed to resolve OrtGetApiBase in " + path + ": " + reason);
    }
    return getApiBase();
}

const OrtApi& initOnnxRuntime() {
    static const OrtApi* const api = loadProcessApi();
    return *api;
}

}  // namespace tonwerk
