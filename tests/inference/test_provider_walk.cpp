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

// Records the calls the walk makes ("append cuda", "create cuda", "plain"...)
// and throws from those listed as failing ("query" fails the provider query).
// The session held is named after the provider appended in the attempt that
// built it ("plain" for the CPU).
class FakeRuntime : public SessionRuntime {
public:
    FakeRuntime(std::vector<std::string> available, std::set<std::string> failing)
        : available_(std::move(available)), failing_(std::move(failing)) {}
    std::vector<std::string> calls;
    std::string session;

    std::vector<std::string> availableProviders() override {
        if (failing_.count("query") != 0) throw std::runtime_error("query failed");
        return available_;
    }
    void beginAttempt() override { calls.push_back("begin"); }
    void appendProvider(ProviderKind kind) override {
        attempt_ = kind == ProviderKind::directMl ? "dml" : kind == ProviderKind::cuda ? "cuda" : "rocm";
        call("append " + attempt_);
    }
    void createSession() override {
        call("create " + attempt_);
        session = attempt_;
    }
    void createPlainSession() override {
        call("plain");
        session = "plain";
    }
    bool hasSession() const override { return !session.empty(); }

private:
    void call(const std::string& what) {
        calls.push_back(what);
        if (failing_.count(what) != 0) throw std::runtime_error(what + " failed");
    }
    std::vector<std::string> available_;
    std::set<std::string> failing_;
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
    struct Case {
        std::vector<std::string> available;
        std::set<std::string> failing;
        std::string preferred;
        std::vector<std::string> calls;
        std::string session;  // empty: the walk throws
        std::vector<std::string> log;  // "<severity> <message>" of each [INFERENCE_onnx] line
    };
    const std::vector<Case> cases = {
        {{cpu}, {}, "", {"plain"}, "plain", {}},
        {{dml, cuda, cpu}, {}, cpu, {"plain"}, "plain", {}},
        {{cuda, dml, cpu}, {}, "", {"begin", "append dml", "create dml", "begin", "append cuda", "create cuda"}, "cuda",
         {}},
        {{cuda, rocm, cpu}, {}, rocm, {"begin", "append rocm", "create rocm", "begin", "append cuda", "create cuda"},
         "cuda", {}},
        {{cpu, "CoreMLExecutionProvider", rocm, cuda, "QNNExecutionProvider", dml}, {"append cuda", "create dml"}, "",
         {"begin", "append dml", "create dml", "begin", "begin", "append cuda", "begin", "append rocm", "create rocm",
          "begin"},
         "rocm",
         {"ERROR Failed to init backend: create dml failed", "WARN  Unknown EP: QNNExecutionProvider",
          "ERROR Failed to init backend: append cuda failed", "WARN  Unknown EP: CoreMLExecutionProvider"}},
        {{cuda, cpu}, {"create cuda"}, "", {"begin", "append cuda", "create cuda", "plain"}, "plain",
         {"ERROR Failed to init backend: create cuda failed"}},
        {{"TensorrtExecutionProvider", cuda, cpu}, {}, "TensorrtExecutionProvider",
         {"begin", "begin", "append cuda", "create cuda"}, "cuda", {"WARN  Unknown EP: TensorrtExecutionProvider"}},
        {{cpu}, {"query"}, "", {}, "", {"ERROR Failed to initialize ONNX session: query failed"}},
        {{cpu}, {"plain"}, "", {"plain"}, "", {"ERROR Failed to initialize ONNX session: plain failed"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.preferred + " preferred, keeping " + c.session);
        FakeRuntime runtime(c.available, c.failing);
        std::vector<std::string> lines;
        for (const auto& line : test::linesWith(test::stdoutOf([&] {
                 if (c.session.empty()) {
                     EXPECT_THROW(walkExecutionProviders(runtime, c.preferred), std::runtime_error);
                 } else {
                     walkExecutionProviders(runtime, c.preferred);
                 }
             }), "[INFERENCE_onnx]")) {
            const std::size_t message = line.find("] [INFERENCE_onnx] ");
            lines.push_back(line.substr(24, 5) + " " + line.substr(message + 19));
        }
        EXPECT_EQ(runtime.calls, c.calls);
        EXPECT_EQ(runtime.session, c.session);
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
