#include "api/inference_context_impl.h"
#include "api/model_scrambling.h"
#include "pipeline/stream_layout.h"

#include <string>
#include <vector>

namespace tonwerk {
namespace {

std::shared_ptr<IInference> loadBackend(const ModelData& modelData) {
    const auto size = static_cast<std::size_t>(modelData.size);
    if (modelData.key.empty()) {
        return makeInferenceBackend(modelData.data, size, {}, layout::stemOutputNames(), "");
    }
    // The plain copy lives only as long as loading takes.
    const UnscrambledModel plain(modelData.data, size, modelData.key);
    return makeInferenceBackend(plain.data(), plain.size(), {}, layout::stemOutputNames(), "");
}

}  // namespace

InferenceContextImpl::InferenceContextImpl(const ModelData& modelData) {
    // Logging first, so that the backend's start-up problems are printed.
    logging = log::LogSetup::trySetUp();
    backend = loadBackend(modelData);
}

InferenceContextImpl::~InferenceContextImpl() {
    // The backend may still log while it goes; the logger goes after it.
    backend.reset();
    logging.reset();
}

InferenceContext::InferenceContext(ModelData modelData) : impl(new InferenceContextImpl(modelData)) {}

InferenceContext::InferenceContext(InferenceContext&& other) noexcept : impl(other.impl) { other.impl = nullptr; }

InferenceContext& InferenceContext::operator=(InferenceContext&& other) noexcept {
    if (this != &other) {
        delete impl;
        impl = other.impl;
        other.impl = nullptr;
    }
    return *this;
}

InferenceContext::~InferenceContext() { delete impl; }

}  // namespace tonwerk
