#include "inference/ort_session_runtime.h"

#include "inference/dml_adapter.h"
#include "inference/dml_provider.h"

namespace tonwerk {

OrtSessionRuntime::OrtSessionRuntime(const Ort::Env& env, const void* model, std::size_t modelSize,
                                     SessionTuning tuning)
    : env_(env), model_(model), modelSize_(modelSize), tuning_(tuning) {}

// Default tuning leaves the options untouched, as the runtime makes them.
Ort::SessionOptions OrtSessionRuntime::tunedOptions() const {
    Ort::SessionOptions options;
    if (tuning_.intraOpThreads > 0) options.SetIntraOpNumThreads(tuning_.intraOpThreads);
    if (!tuning_.spinning) options.AddConfigEntry("session.intra_op.allow_spinning", "0");
    return options;
}

std::vector<std::string> OrtSessionRuntime::availableProviders() { return Ort::GetAvailableProviders(); }

void OrtSessionRuntime::beginAttempt() { options_ = tunedOptions(); }

void OrtSessionRuntime::appendProvider(ProviderKind kind) {
    switch (kind) {
        case ProviderKind::directMl:
            appendDirectMl(options_, selectDmlAdapterIndex());
            break;
        case ProviderKind::cuda:
            // Default-constructed records carry the runtime's defaults (device 0, ...).
            options_.AppendExecutionProvider_CUDA(OrtCUDAProviderOptions{});
            break;
        case ProviderKind::rocm:
            options_.AppendExecutionProvider_ROCM(OrtROCMProviderOptions{});
            break;
    }
}

void OrtSessionRuntime::createSession() {
    auto session = std::make_unique<Ort::Session>(env_, model_, modelSize_, options_);
    session_ = std::move(session);
    options_ = Ort::SessionOptions(nullptr);
}

void OrtSessionRuntime::createPlainSession() {
    const Ort::SessionOptions plain = tunedOptions();
    session_ = std::make_unique<Ort::Session>(env_, model_, modelSize_, plain);
}

bool OrtSessionRuntime::hasSession() const { return session_ != nullptr; }

std::unique_ptr<Ort::Session> OrtSessionRuntime::takeSession() { return std::move(session_); }

}  // namespace tonwerk
