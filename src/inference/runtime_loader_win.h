// The pieces of runtime loading on Windows, exposed for tests.
#pragma once

#include <string>

namespace tonwerk {

// File name of the runtime library; the delay-load import names it too.
constexpr const wchar_t* kOrtDllName = L"onnxruntime_pelagrin.dll";

// Folder of the module (DLL or executable) that holds this code, with a
// trailing separator.
std::wstring ortLibraryDirectory();

// Maps `directory` + kOrtDllName into the process by its full path and checks
// that it offers OrtGetApiBase. The library stays loaded for the rest of the
// process. Throws std::runtime_error naming the file, the folder and the
// loader's reason when either step fails.
void preloadOrtLibrary(const std::wstring& directory);

// UTF-8 form of a path, for messages.
std::string narrowPath(const std::wstring& path);

}  // namespace tonwerk
