#include "inference/provider_walk.h"

#include "capture_stdout.h"
#include "common/logging.h"
#include "inference/ort_session_runtime.h"
#include "inference/runtime_loader.h"
#include "model_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
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
    FakeRuntime runtime;

private:
    std::unique_ptr<log::LogSetup> logging_ = log::LogSetup::trySetUp();
};

TEST_F(ProviderWalkTest, CpuAloneOrPreferredBuildsOnlyAPlainSession) {
    test::CaptureStdout out;
    walkExecutionProviders(runtime, "");
    EXPECT_THAT(runtime.calls, ElementsAre("plain"));

    FakeRuntime gpus;
    gpus.available = {"DmlExecutionProvider", "CUDAExecutionProvider", "CPUExecutionProvider"};
    walkExecutionProviders(gpus, "CPUExecutionProvider");
    EXPECT_THAT(gpus.calls, ElementsAre("plain"));
    EXPECT_THAT(out.text(), IsEmpty());
}

TEST_F(ProviderWalkTest, EveryWorkingProviderIsBuiltAndTheLastOneKept) {
    runtime.available = {"CUDAExecutionProvider", "DmlExecutionProvider", "CPUExecutionProvider"};
    test::CaptureStdout out;
    walkExecutionProviders(runtime, "");
    EXPECT_THAT(runtime.calls,
                ElementsAre("begin", "append dml", "create dml", "begin", "append cuda", "create cuda"));
    EXPECT_EQ(runtime.session, "cuda");
    EXPECT_THAT(out.text(), IsEmpty());
}

TEST_F(ProviderWalkTest, UnknownProvidersWarnAndFailuresMoveOnToTheNext) {
    runtime.available = {"CPUExecutionProvider",  "CoreMLExecutionProvider", "ROCmExecutionProvider",
                         "CUDAExecutionProvider", "QNNExecutionProvider",    "DmlExecutionProvider"};
    runtime.failCreate = {"dml"};
    runtime.failAppend = {"cuda"};
    test::CaptureStdout out;
    walkExecutionProviders(runtime, "");
    EXPECT_THAT(runtime.calls, ElementsAre("begin", "append dml", "create dml", "begin" /* QNN */, "begin",
                                           "append cuda", "begin", "append rocm", "create rocm", "begin" /* CoreML */));
    EXPECT_EQ(runtime.session, "rocm");
    const auto lines = out.linesWith("[INFERENCE_onnx]");
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines[0], HasSubstr("ERROR ["));
    EXPECT_THAT(lines[0], HasSubstr("] [INFERENCE_onnx] Failed to init backend: dml session failed"));
    EXPECT_THAT(lines[1], HasSubstr("WARN  ["));
    EXPECT_THAT(lines[1], HasSubstr("] [INFERENCE_onnx] Unknown EP: QNNExecutionProvider"));
    EXPECT_THAT(lines[2], HasSubstr("] [INFERENCE_onnx] Failed to init backend: cuda append failed"));
    EXPECT_THAT(lines[3], HasSubstr("] [INFERENCE_onnx] Unknown EP: CoreMLExecutionProvider"));
}

TEST_F(ProviderWalkTest, CpuIsTheFallbackOnlyWhenNoProviderSucceeded) {
    runtime.available = {"CUDAExecutionProvider", "CPUExecutionProvider"};
    runtime.failCreate = {"cuda"};
    walkExecutionProviders(runtime, "");
    EXPECT_THAT(runtime.calls, ElementsAre("begin", "append cuda", "create cuda", "plain"));
    EXPECT_EQ(runtime.session, "plain");
}

TEST_F(ProviderWalkTest, PreferredProviderIsTriedFirstEvenOutsideTheList) {
    runtime.available = {"CUDAExecutionProvider", "ROCmExecutionProvider", "CPUExecutionProvider"};
    walkExecutionProviders(runtime, "ROCmExecutionProvider");
    EXPECT_THAT(runtime.calls,
                ElementsAre("begin", "append rocm", "create rocm", "begin", "append cuda", "create cuda"));

    FakeRuntime other;
    other.available = {"TensorrtExecutionProvider", "CUDAExecutionProvider", "CPUExecutionProvider"};
    test::CaptureStdout out;
    walkExecutionProviders(other, "TensorrtExecutionProvider");
    EXPECT_THAT(other.calls, ElementsAre("begin", "begin", "append cuda", "create cuda"));
    EXPECT_THAT(out.linesWith("Unknown EP: TensorrtExecutionProvider"), SizeIs(1));
}

TEST_F(ProviderWalkTest, FailuresOutsideTheProviderAttemptsAreLoggedAndRethrown) {
    for (const bool queryFails : {true, false}) {
        FakeRuntime failing;
        failing.failQuery = queryFails;
        failing.failPlain = !queryFails;
        test::CaptureStdout out;
        EXPECT_THROW(walkExecutionProviders(failing, ""), std::runtime_error);
        const auto lines = out.linesWith("ERROR");
        ASSERT_THAT(lines, SizeIs(1));
        EXPECT_THAT(lines[0], HasSubstr(std::string("[INFERENCE_onnx] Failed to initialize ONNX session: ") +
                                        (queryFails ? "provider query failed" : "cpu session failed")));
    }
}

Ort::Env runtimeEnvironment() {
    initOnnxRuntime();  // the wrapper classes need the function table first
    return Ort::Env(ORT_LOGGING_LEVEL_WARNING, "");
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
    test::CaptureStdout capture;
    walkExecutionProviders(real, "");
    const std::string log = capture.text();

    // Only the runtime's own library is shipped, never its GPU provider
    // libraries, so every GPU provider it reports fails to append.
    std::size_t gpuProviders = 0;
    for (const char* gpu : {"CUDAExecutionProvider", "ROCmExecutionProvider"}) {
        gpuProviders += std::count(available.begin(), available.end(), gpu);
    }
    std::istringstream lines(log);
    std::size_t failures = 0;
    for (std::string line; std::getline(lines, line); ++failures) {
        EXPECT_THAT(line, HasSubstr("ERROR"));
        EXPECT_THAT(line, HasSubstr("] [INFERENCE_onnx] Failed to init backend: "));
    }
    EXPECT_EQ(failures, gpuProviders);

    auto session = real.takeSession();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->GetInputCount(), 7u);
}

// This runtime has no DirectML; its append is unchecked by design, so the
// attempt quietly builds a session with the options as they are.
TEST_F(RealRuntimeWalkTest, FailingDirectMlAppendStillEndsWithASession) {
    struct DirectMlReported : OrtSessionRuntime {
        using OrtSessionRuntime::OrtSessionRuntime;
        std::vector<std::string> availableProviders() override {
            return {"DmlExecutionProvider", "CPUExecutionProvider"};
        }
    } real(env, model.data(), model.size());
    test::CaptureStdout out;
    walkExecutionProviders(real, "");
    EXPECT_THAT(out.text(), IsEmpty());
    EXPECT_NE(real.takeSession(), nullptr);
}

}  // namespace
}  // namespace tonwerk
