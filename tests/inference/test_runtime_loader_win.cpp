#include "inference/runtime_loader_win.h"
#include "test_support.h"

#include <windows.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::wstring executableDirectory() {
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring exe(path, length);
    return exe.substr(0, exe.find_last_of(L"\\/") + 1);
}

std::string preloadError(const std::wstring& directory) {
    return test::runtimeErrorOf([&] { preloadOrtLibrary(directory); });
}

// The backend is linked statically into this test, so "our module" is the
// test program, whose folder holds the runtime.
TEST(RuntimeLoaderWindows, LooksInTheModuleFolderAndNamesFileAndFolderWhenTheRuntimeIsMissing) {
    EXPECT_EQ(ortLibraryDirectory(), executableDirectory());
    EXPECT_EQ(preloadError(ortLibraryDirectory()), "no error");

    const std::wstring missing = executableDirectory() + L"no-such-folder\\";
    EXPECT_THAT(preloadError(missing),
                AllOf(StartsWith("Failed to load ONNX Runtime onnxruntime_pelagrin.dll from folder "),
                      HasSubstr(narrowPath(missing)), HasSubstr("(error 126)")));
}

}  // namespace
}  // namespace tonwerk
