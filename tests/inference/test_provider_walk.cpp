#include "inference/provider_walk.h"

#include "common/logging.h"
#include "inference/ort_session_runtime.h"
#include "inference/runtime_loader.h"
#include "test_support.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <stdexcept>

namespace tonwerk {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Records the operations the walk asks for. The session held is named after
// the provider appended in the attempt that built it ("plain" for the CPU).
class FakeRuntime : public SessionRuntime {
public:
    std::vector<std::string> available{"CPUExecutionProvider"};
    std::set<std::string> failAppend, failCreate;  // provider names: "dml", "cuda", "rocm"
    bool failQuery = false, failPlain = false;
    std::vector<std::string> calls;
    std::string session;

    std::vector<std::string> availableProviders() override {
        if (failQuery) throw std::runtime_error("provider query failed");
        return available;
    }
    void beginAttempt() override { calls.push_back("begin"); }
    void appendProvider(ProviderKind kind) override {
        attempt_ = kind == ProviderKind::directMl ? "dml" : kind == ProviderKind::cuda ? "cuda" : "rocm";
        calls.push_back("append " + attempt_);
        if (failAppend.count(attempt_) != 0) throw std::runtime_error(attempt_ + " append failed");
    }
    void createSession() override {
        calls.push_back("create " + attempt_);
        if (failCreate.count(attempt_) != 0) throw std::runtime_error(attempt_ + " session failed");
        session = attempt_;
    }
    void createPlainSession() override {
        calls.push_back("plain");
        if (failPlain) throw std::runtime_error("cpu session failed");
        session = "plain";
    }
    bool hasSession() const override { return !session.empty(); }

private:
    std::string attempt_;
};

class ProviderWalkTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(logging_, nullptr) << "another logger is active"; }
    // Walks `runtime` and returns its log lines.
    static std::vector<std::string> walk(SessionRuntime& runtime, const std::string& preferred = "") {
        return test::linesWith(test::stdoutOf([&] { walkExecutionProviders(runtime, preferred); }), "[INFERENCE_onnx]");
    }
    FakeRuntime runtime;

private:
    std::unique_ptr<log::LogSetup> logging_ = log::LogSetup::trySetUp();
};

// Every working provider is built in the walk's order (the preferred one
// first) and the last one kept; the CPU alone or preferred builds only a plain session.
TEST_F(ProviderWalkTest, WorkingProvidersAreBuiltQuietlyAndTheLastOneKept) {
    struct Case {
        std::vector<std::string> available;
        std::string preferred;
        std::vector<std::string> calls;
    };
    const std::vector<std::string> dmlThenCuda = {"begin", "append dml", "create dml", "begin", "append cuda", "create cuda"};
    const std::vector<Case> cases = {
        {{"CPUExecutionProvider"}, "", {"plain"}},
        {{"DmlExecutionProvider", "CUDAExecutionProvider", "CPUExecutionProvider"}, "CPUExecutionProvider", {"plain"}},
        {{"CUDAExecutionProvider", "DmlExecutionProvider", "CPUExecutionProvider"}, "", dmlThenCuda},
        {{"CUDAExecutionProvider", "ROCmExecutionProvider", "CPUExecutionProvider"}, "ROCmExecutionProvider",
         {"begin", "append rocm", "create rocm", "begin", "append cuda", "create cuda"}},
    };
    for (const Case& c : cases) {
        FakeRuntime fake;
        fake.available = c.available;
        EXPECT_THAT(walk(fake, c.preferred), IsEmpty());
        EXPECT_EQ(fake.calls, c.calls) << c.preferred;
        EXPECT_EQ(fake.session, c.calls.size() == 1 ? "plain" : "cuda");
    }
}

TEST_F(ProviderWalkTest, UnknownProvidersWarnAndFailuresMoveOnToTheNext) {
    runtime.available = {"CPUExecutionProvider",  "CoreMLExecutionProvider", "ROCmExecutionProvider",
                         "CUDAExecutionProvider", "QNNExecutionProvider",    "DmlExecutionProvider"};
    runtime.failCreate = {"dml"};
    runtime.failAppend = {"cuda"};
    const auto lines = walk(runtime);
    EXPECT_THAT(runtime.calls, ElementsAre("begin", "append dml", "create dml", "begin" /* QNN */, "begin",
                                           "append cuda", "begin", "append rocm", "create rocm", "begin" /* CoreML */));
    EXPECT_EQ(runtime.session, "rocm");
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines[0], HasSubstr("ERROR ["));
    EXPECT_THAT(lines[0], HasSubstr("] [INFERENCE_onnx] Failed to init backend: dml session failed"));
    EXPECT_THAT(lines[1], HasSubstr("WARN  ["));
    EXPECT_THAT(lines[1], HasSubstr("] [INFERENCE_onnx] Unknown EP: QNNExecutionProvider"));
    EXPECT_THAT(lines[2], HasSubstr("] [INFERENCE_onnx] Failed to init backend: cuda append failed"));
    EXPECT_THAT(lines[3], HasSubstr("] [INFERENCE_onnx] Unknown EP: CoreMLExecutionProvider"));

    FakeRuntime cudaFails;  // the CPU is the fallback only when no provider succeeded
    cudaFails.available = {"CUDAExecutionProvider", "CPUExecutionProvider"};
    cudaFails.failCreate = {"cuda"};
    EXPECT_THAT(walk(cudaFails), SizeIs(1));
    EXPECT_THAT(cudaFails.calls, ElementsAre("begin", "append cuda", "create cuda", "plain"));
    EXPECT_EQ(cudaFails.session, "plain");
}

TEST_F(ProviderWalkTest, UnknownPreferredProviderIsStillTriedFirst) {
    runtime.available = {"TensorrtExecutionProvider", "CUDAExecutionProvider", "CPUExecutionProvider"};
    const auto lines = walk(runtime, "TensorrtExecutionProvider");
    EXPECT_THAT(runtime.calls, ElementsAre("begin", "begin", "append cuda", "create cuda"));
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr("Unknown EP: TensorrtExecutionProvider"));
}

TEST_F(ProviderWalkTest, FailuresOutsideTheProviderAttemptsAreLoggedAndRethrown) {
    for (const bool queryFails : {true, false}) {
        FakeRuntime failing;
        failing.failQuery = queryFails;
        failing.failPlain = !queryFails;
        const auto lines = test::linesWith(test::stdoutOf([&] {
            EXPECT_THROW(walkExecutionProviders(failing, ""), std::runtime_error);
        }), "ERROR");
        ASSERT_THAT(lines, SizeIs(1));
        EXPECT_THAT(lines[0], HasSubstr(std::string("[INFERENCE_onnx] Failed to initialize ONNX session: ") +
                                        (queryFails ? "provider query failed" : "cpu session failed")));
    }
}

Ort::Env runtimeEnvironment() {
    initOnnxRuntime();  // the wrapper classes need the function table first
    return Ort::Env(ORT_LOGGING_LEVEL_WARNING, "");
}

// Log lines of the walk itself: the DirectML adapter choice (whose own lines
// mention DXGI or the DML adapter) speaks only where DirectML is reported.
std::vector<std::string> walkLines(const std::string& log) {
    std::vector<std::string> lines;
    for (const auto& line : test::linesWith(log, "")) {
        if (line.find("DXGI") == std::string::npos && line.find("DML adapter") == std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The walk over this machine's real runtime.
class RealRuntimeWalkTest : public ProviderWalkTest {
protected:
    const std::vector<unsigned char> model = test::readModel("identity.onnx");
    Ort::Env env = runtimeEnvironment();
};

TEST_F(RealRuntimeWalkTest, UnusableGpuProvidersFallBackToAWorkingCpuSession) {
    OrtSessionRuntime real(env, model.data(), model.size());
    const auto available = real.availableProviders();
    const std::string log = test::stdoutOf([&] { walkExecutionProviders(real, ""); });

    // Only the runtime's own library is shipped, never its GPU provider
    // libraries, so every GPU provider it reports fails to append.
    const auto gpuProviders = std::count(available.begin(), available.end(), "CUDAExecutionProvider") +
                              std::count(available.begin(), available.end(), "ROCmExecutionProvider");
    const auto lines = walkLines(log);
    EXPECT_EQ(static_cast<std::ptrdiff_t>(lines.size()), gpuProviders) << log;
    for (const auto& line : lines) {
        EXPECT_THAT(line, HasSubstr("ERROR"));
        EXPECT_THAT(line, HasSubstr("] [INFERENCE_onnx] Failed to init backend: "));
    }
    auto session = real.takeSession();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->GetInputCount(), 7u);
}

// DirectML cannot start here (no DirectML in the Linux runtime, no display
// for it under Wine); its append is unchecked by design, so the attempt
// quietly builds a session with the options as they are.
TEST_F(RealRuntimeWalkTest, FailingDirectMlAppendStillEndsWithASession) {
    struct DirectMlReported : OrtSessionRuntime {
        using OrtSessionRuntime::OrtSessionRuntime;
        std::vector<std::string> availableProviders() override { return {"DmlExecutionProvider", "CPUExecutionProvider"}; }
    } real(env, model.data(), model.size());
    EXPECT_THAT(walkLines(test::stdoutOf([&] { walkExecutionProviders(real, ""); })), IsEmpty());
    EXPECT_NE(real.takeSession(), nullptr);
}

}  // namespace
}  // namespace tonwerk
