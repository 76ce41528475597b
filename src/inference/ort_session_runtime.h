// The provider walk's operations on the real ONNX Runtime.
#pragma once

#include "inference/inference.h"
#include "inference/provider_walk.h"

#include <onnxruntime_cxx_api.h>

#include <cstddef>
#include <memory>

namespace tonwerk {

// Builds sessions from model bytes in memory. The model bytes and the
// environment must outlive the object; the session it ends up with is
// handed over with takeSession().
class OrtSessionRuntime : public SessionRuntime {
public:
    OrtSessionRuntime(const Ort::Env& env, const void* model, std::size_t modelSize, SessionTuning tuning = {});

    std::vector<std::string> availableProviders() override;
    void beginAttempt() override;
    void appendProvider(ProviderKind kind) override;
    void createSession() override;
    void createPlainSession() override;
    bool hasSession() const override;

    std::unique_ptr<Ort::Session> takeSession();

private:
    Ort::SessionOptions tunedOptions() const;

    const Ort::Env& env_;
    const void* model_;
    std::size_t modelSize_;
    SessionTuning tuning_;
    Ort::SessionOptions options_{nullptr};
    std::unique_ptr<Ort::Session> session_;
};

}  // namespace tonwerk
