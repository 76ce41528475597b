#include "inference/provider_walk.h"

#include "common/logging.h"
#include "inference/backend_log_names.h"

#include <algorithm>
#include <exception>
#include <optional>

namespace tonwerk {
namespace {

constexpr const char* kCpuProvider = "CPUExecutionProvider";

// QNN and CoreML are in the preference list for other platforms' builds of
// the runtime; here they have no append rule.
std::optional<ProviderKind> appendRule(const std::string& name) {
    if (name == "DmlExecutionProvider") return ProviderKind::directMl;
    if (name == "CUDAExecutionProvider") return ProviderKind::cuda;
    if (name == "ROCmExecutionProvider") return ProviderKind::rocm;
    return std::nullopt;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

void tryProvider(SessionRuntime& runtime, const std::string& name) {
    try {
        runtime.beginAttempt();
        TW_LOG(info, kBackendConstructorName) << "[INFERENCE_onnx] Append execution provider: " << name;
        const auto rule = appendRule(name);
        if (!rule) {
            TW_LOG(warning, kBackendConstructorName) << "[INFERENCE_onnx] Unknown EP: " << name;
            return;
        }
        runtime.appendProvider(*rule);
        runtime.createSession();
    } catch (const std::exception& e) {
        TW_LOG(error, kBackendConstructorName) << "[INFERENCE_onnx] Failed to init backend: " << e.what();
    }
}

}  // namespace

std::deque<std::string> providerPreference(const std::string& preferred) {
    std::deque<std::string> order{"DmlExecutionProvider",  "QNNExecutionProvider",    "CUDAExecutionProvider",
                                  "ROCmExecutionProvider", "CoreMLExecutionProvider", kCpuProvider};
    if (!preferred.empty()) {
        order.erase(std::remove(order.begin(), order.end(), preferred), order.end());
        order.push_front(preferred);
    }
    return order;
}

void walkExecutionProviders(SessionRuntime& runtime, const std::string& preferred) {
    try {
        const std::vector<std::string> available = runtime.availableProviders();
        for (const auto& name : available) {
            TW_LOG(info, kBackendConstructorName) << "[INFERENCE_onnx] Available Provider: " << name;
        }
        // Every available provider ahead of the CPU gets a full build; the
        // last one that succeeds is kept, so later entries win.
        for (const auto& name : providerPreference(preferred)) {
            if (!contains(available, name)) continue;
            if (name == kCpuProvider) break;
            tryProvider(runtime, name);
        }
        if (!runtime.hasSession()) runtime.createPlainSession();
    } catch (const std::exception& e) {
        TW_LOG(error, kBackendConstructorName) << "[INFERENCE_onnx] Failed to initialize ONNX session: " << e.what();
        throw;
    }
}

}  // namespace tonwerk
