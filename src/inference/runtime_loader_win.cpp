// Windows: onnxruntime_pelagrin.dll is a delay-loaded import whose only entry
// is OrtGetApiBase, so the process starts without it. Left to itself, the
// delay-load helper would look for the file beside the host's executable,
// not beside us (a host keeping plugins in a subfolder would fail), and would
// report a missing file as a structured exception that ends the host. So the
// library is mapped first, by its full path in our own folder; the helper
// then finds it among the loaded modules by name.
#include "inference/runtime_loader.h"
#include "inference/runtime_loader_win.h"

#include <windows.h>

#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

std::string systemMessage(DWORD code) {
    char* text = nullptr;
    const DWORD length =
        FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
    std::string message = length > 0 ? std::string(text, length) : std::string("unknown loader error");
    LocalFree(text);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == ' ')) {
        message.pop_back();
    }
    return message + " (error " + std::to_string(code) + ")";
}

// Done once per process (a failed attempt is retried by the next call). The
// runtime is never unloaded: sessions of other contexts may still live in it.
// Its usage data collection is switched off before the first environment is
// made, unless the host has chosen for itself.
const OrtApi* loadProcessApi() {
    if (GetEnvironmentVariableW(L"ORT_DISABLE_TELEMETRY", nullptr, 0) == 0) {
        SetEnvironmentVariableW(L"ORT_DISABLE_TELEMETRY", L"1");
    }
    preloadOrtLibrary(ortLibraryDirectory());
    const OrtApi* api = OrtGetApiBase()->GetApi(kOrtApiVersion);
    Ort::InitApi(api);
    return api;
}

}  // namespace

std::string narrowPath(const std::wstring& path) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, path.data(), static_cast<int>(path.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    if (size > 0) {
        WideCharToMultiByte(CP_UTF8, 0, path.data(), static_cast<int>(path.size()), narrow.data(), size, nullptr,
                            nullptr);
    }
    return narrow;
}

std::wstring ortLibraryDirectory() {
    HMODULE self = nullptr;
    // Any function of ours names the module we were linked into: the DLL in
    // production, the test executable for static unit tests.
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&ortLibraryDirectory), &self)) {
        throw std::runtime_error("Cannot locate the module containing the inference backend: " +
                                 systemMessage(GetLastError()));
    }
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(self, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) {
            throw std::runtime_error("Cannot locate the module containing the inference backend: " +
                                     systemMessage(GetLastError()));
        }
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

void preloadOrtLibrary(const std::wstring& directory) {
    const std::wstring path = directory + kOrtDllName;
    // The runtime's own dependencies (DirectML.dll) are looked for beside it.
    HMODULE runtime = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (runtime == nullptr) {
        throw std::runtime_error("Failed to load ONNX Runtime " + narrowPath(kOrtDllName) + " from folder " +
                                 narrowPath(directory) + ": " + systemMessage(GetLastError()));
    }
    if (GetProcAddress(runtime, "OrtGetApiBase") == nullptr) {
        const DWORD code = GetLastError();
        FreeLibrary(runtime);
        throw std::runtime_error("Failed to resolve OrtGetApiBase in " + narrowPath(path) + ": " + systemMessage(code));
    }
}

const OrtApi& initOnnxRuntime() {
    static const OrtApi* const api = loadProcessApi();
    return *api;
}

}  // namespace tonwerk
