// The adapter choice and the provider walk over the system's own DXGI and
// ONNX Runtime build. Under Wine without a display DXGI cannot make a
// factory; DirectML's numbers there are not trusted, only the walk's outcome.
#include "common/logging.h"
#include "inference/dml_adapter.h"
#include "inference/inference.h"
#include "inference/runtime_loader.h"
#include "test_support.h"

#include <windows.h>

#include <gmock/gmock.h>

#include <vector>

namespace tonwerk {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

const char* const kDxgiFactoryWarning =
    "] [INFERENCE_onnx] Failed to create DXGI factory, fallback to DML adapter 0. HRESULT=2289696772";

bool headlessWine() {
    const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    const bool wine = ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
    return wine && GetEnvironmentVariableA("DISPLAY", nullptr, 0) == 0;
}

std::vector<std::string> availableProviders() {
    initOnnxRuntime();
    return Ort::GetAvailableProviders();
}

// The walk over the Windows runtime, which reports DirectML. Headless Wine
// cannot make a DXGI factory: the adapter choice warns once with the HRESULT
// (and takes adapter 0, as the fake DXGI's table shows).
TEST(DmlAdapterSystem, WalkOverTheWindowsRuntimeEndsWithAWorkingSession) {
    EXPECT_THAT(availableProviders(), Contains("DmlExecutionProvider"));
    auto setup = log::LogSetup::trySetUp();
    std::shared_ptr<IInference> backend;
    const std::string out = test::stdoutOf([&] { backend = test::identityBackend(""); });
    if (headlessWine()) {
        const auto lines = test::linesWith(out, kDxgiFactoryWarning);
        ASSERT_THAT(lines, SizeIs(1)) << out;
        EXPECT_THAT(lines[0], HasSubstr("WARN  ["));
    }
    EXPECT_THAT(out, Not(HasSubstr("Failed to init backend")));
    // A failed run would only show in the log: run() returns true regardless.
    // (What the session computes is checked in the stream tests, here too.)
    const std::size_t count = 4 * 256 * 2048;
    std::vector<float> input(count, 0.25F);
    std::vector<std::vector<float>> outputs(6, std::vector<float>(count));
    std::vector<float*> pointers;
    for (auto& output : outputs) pointers.push_back(output.data());
    const std::string runLog =
        test::stdoutOf([&] { EXPECT_TRUE(backend->run(input.data(), pointers, {1, 4, 256, 2048})); });
    EXPECT_THAT(runLog, Not(HasSubstr("Exception during inference"))) << runLog;
}

}  // namespace
}  // namespace tonwerk
