// The execution-provider walk: against a fake runtime that records what the
// walk asks for (no GPU provider can start here), and over this machine's
// real runtime.
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

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// The session held is named after the provider appended in the attempt that
// built it ("plain" for the CPU).
class FakeRuntime : public SessionRuntime {
public:
    std::vector<std::string> available;
    std::set<std::string> failAppend, failCreate;  // "dml", "cuda", "rocm"
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

// Every available provider the walk knows is built in its order (the
// preferred one first), the last that worked is kept, and the CPU is the
// fallback only when none did; unknown ones warn, failures are logged and the
// walk moves on; failures outside the attempts are logged and rethrown.
TEST(ProviderWalk, BuildsEveryWorkingProviderInOrderKeepsTheLastAndFallsBackToTheCpu) {
    const auto logging = log::LogSetup::trySetUp();
    ASSERT_NE(logging, nullptr) << "another logger is active";
    const std::string cpu = "CPUExecutionProvider", dml = "DmlExecutionProvider", cuda = "CUDAExecutionProvider",
                      rocm = "ROCmExecutionProvider";
    const std::vector<std::string> dmlThenCuda = {"begin", "append dml", "create dml", "begin", "append cuda",
                                                  "create cuda"};
    struct Case {
        FakeRuntime runtime;
        std::string preferred;
        std::vector<std::string> calls;
        std::string session;  // empty: the walk throws
        std::vector<std::string> log;  // "<severity> <message>" of each [INFERENCE_onnx] line
    };
    const auto fake = [](std::vector<std::string> available, std::set<std::string> failAppend = {},
                         std::set<std::string> failCreate = {}) {
        FakeRuntime runtime;
        runtime.available = std::move(available);
        runtime.failAppend = std::move(failAppend);
        runtime.failCreate = std::move(failCreate);
        return runtime;
    };
    std::vector<Case> cases = {
        {fake({cpu}), "", {"plain"}, "plain", {}},
        {fake({dml, cuda, cpu}), cpu, {"plain"}, "plain", {}},
        {fake({cuda, dml, cpu}), "", dmlThenCuda, "cuda", {}},
        {fake({cuda, rocm, cpu}), rocm, {"begin", "append rocm", "create rocm", "begin", "append cuda", "create cuda"},
         "cuda", {}},
        {fake({cpu, "CoreMLExecutionProvider", rocm, cuda, "QNNExecutionProvider", dml}, {"cuda"}, {"dml"}), "",
         {"begin", "append dml", "create dml", "begin", "begin", "append cuda", "begin", "append rocm", "create rocm",
          "begin"},
         "rocm",
         {"ERROR Failed to init backend: dml session failed", "WARN  Unknown EP: QNNExecutionProvider",
          "ERROR Failed to init backend: cuda append failed", "WARN  Unknown EP: CoreMLExecutionProvider"}},
        {fake({cuda, cpu}, {}, {"cuda"}), "", {"begin", "append cuda", "create cuda", "plain"}, "plain",
         {"ERROR Failed to init backend: cuda session failed"}},
        {fake({"TensorrtExecutionProvider", cuda, cpu}), "TensorrtExecutionProvider",
         {"begin", "begin", "append cuda", "create cuda"}, "cuda", {"WARN  Unknown EP: TensorrtExecutionProvider"}},
        {fake({cpu}), "", {}, "", {"ERROR Failed to initialize ONNX session: provider query failed"}},
        {fake({cpu}), "", {"plain"}, "", {"ERROR Failed to initialize ONNX session: cpu session failed"}},
    };
    cases[7].runtime.failQuery = true;
    cases[8].runtime.failPlain = true;
    for (Case& c : cases) {
        SCOPED_TRACE(c.preferred + " preferred, keeping " + c.session);
        std::vector<std::string> lines;
        for (const auto& line : test::linesWith(test::stdoutOf([&] {
                 if (c.session.empty()) {
                     EXPECT_THROW(walkExecutionProviders(c.runtime, c.preferred), std::runtime_error);
                 } else {
                     walkExecutionProviders(c.runtime, c.preferred);
                 }
             }), "[INFERENCE_onnx]")) {
            const std::size_t message = line.find("] [INFERENCE_onnx] ");
            lines.push_back(line.substr(24, 5) + " " + line.substr(message + 19));
        }
        EXPECT_EQ(c.runtime.calls, c.calls);
        EXPECT_EQ(c.runtime.session, c.session);
        EXPECT_EQ(lines, c.log);
    }
}

// Log lines of the walk itself: the DirectML adapter choice (whose own lines
// mention DXGI or the DML adapter) speaks only where DirectML is reported.
std::vector<std::string> walkLines(const std::function<void()>& walk) {
    std::vector<std::string> lines;
    for (const auto& line : test::linesWith(test::stdoutOf(walk), "")) {
        if (line.find("DXGI") == std::string::npos && line.find("DML adapter") == std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

class RealRuntimeWalk : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(logging, nullptr) << "another logger is active";
        initOnnxRuntime();  // the wrapper classes need the function table first
        env = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "");
    }
    std::unique_ptr<log::LogSetup> logging = log::LogSetup::trySetUp();
    const std::vector<unsigned char> model = test::readModel("identity.onnx");
    std::unique_ptr<Ort::Env> env;
};

// Only the runtime's own library is shipped, never its GPU provider
// libraries, so every GPU provider it reports fails to append.
TEST_F(RealRuntimeWalk, UnusableGpuProvidersFallBackToAWorkingCpuSession) {
    OrtSessionRuntime real(*env, model.data(), model.size());
    const auto available = real.availableProviders();
    const auto lines = walkLines([&] { walkExecutionProviders(real, ""); });
    const auto count = [&available](const char* name) { return std::count(available.begin(), available.end(), name); };
    EXPECT_EQ(lines.size(), std::size_t(count("CUDAExecutionProvider") + count("ROCmExecutionProvider")));
    for (const auto& line : lines) {
        EXPECT_THAT(line, AllOf(HasSubstr(" ERROR ["), HasSubstr("] [INFERENCE_onnx] Failed to init backend: ")));
    }
    auto session = real.takeSession();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->GetInputCount(), 7u);
}

// DirectML cannot start here (no DirectML in the Linux runtime, no display
// for it under Wine); its append is unchecked by design, so the attempt
// quietly builds a session with the options as they are.
TEST_F(RealRuntimeWalk, FailingDirectMlAppendStillEndsWithASession) {
    struct DirectMlReported : OrtSessionRuntime {
        using OrtSessionRuntime::OrtSessionRuntime;
        std::vector<std::string> availableProviders() override {
            return {"DmlExecutionProvider", "CPUExecutionProvider"};
        }
    } real(*env, model.data(), model.size());
    EXPECT_THAT(walkLines([&] { walkExecutionProviders(real, ""); }), IsEmpty());
    EXPECT_NE(real.takeSession(), nullptr);
}

}  // namespace
}  // namespace tonwerk
