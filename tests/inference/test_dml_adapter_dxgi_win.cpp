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

#include <algorithm>
#include <array>
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

TEST(DmlAdapterSystem, HeadlessDxgiFallsBackToAdapterZeroWithItsHresult) {
    if (!headlessWine()) GTEST_SKIP() << "only headless Wine has a known DXGI outcome";
    auto setup = log::LogSetup::trySetUp();
    int index = -1;
    const auto lines = test::linesWith(test::stdoutOf([&] { index = selectDmlAdapterIndex(); }), "[INFERENCE_onnx]");
    EXPECT_EQ(index, 0);
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr("WARN  ["));
    EXPECT_THAT(lines[0], HasSubstr(kDxgiFactoryWarning));
}

TEST(DmlAdapterSystem, WalkOverTheWindowsRuntimeEndsWithAWorkingSession) {
    EXPECT_THAT(availableProviders(), Contains("DmlExecutionProvider"));
    auto setup = log::LogSetup::trySetUp();
    std::shared_ptr<IInference> backend;
    const std::string out = test::stdoutOf([&] { backend = test::identityBackend(""); });
    if (headlessWine()) {
        EXPECT_THAT(out, HasSubstr(std::string(kDxgiFactoryWarning) + "\n"));
    }
    EXPECT_THAT(out, Not(HasSubstr("Failed to init backend")));
    setSelectedStems(backend, StemFlags{true, false, false, false, false, false});

    // A failed run would only show in the log: run() returns true regardless.
    const std::size_t count = 4 * 256 * 2048;
    std::vector<float> input(count);
    for (std::size_t i = 0; i < count; ++i) input[i] = static_cast<float>(i % 1000) * 1e-3F - 0.5F;
    std::vector<std::vector<float>> outputs(6, std::vector<float>(count, 7.0F));
    std::vector<float*> pointers;
    for (auto& output : outputs) pointers.push_back(output.data());
    const std::array<std::int64_t, 4> shape{1, 4, 256, 2048};
    const std::string runLog = test::stdoutOf([&] { EXPECT_TRUE(backend->run(input.data(), pointers, shape)); });
    EXPECT_THAT(runLog, Not(HasSubstr("Exception during inference"))) << runLog;
    for (std::size_t stem = 1; stem < 6; ++stem) {
        EXPECT_EQ(std::count(outputs[stem].begin(), outputs[stem].end(), 0.0F), static_cast<std::ptrdiff_t>(count))
            << "stem " << stem;
    }
    // Without a display DirectML cannot start, so the session is the CPU's,
    // whose identity is exact.
    if (headlessWine()) {
        EXPECT_EQ(outputs[0], input);
    }
}

}  // namespace
}  // namespace tonwerk
