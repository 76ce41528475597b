// What an InferenceContext handle owns.
#pragma once

#include "common/logging.h"
#include "inference/inference.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <memory>

namespace tonwerk {

class InferenceContextImpl {
public:
    explicit InferenceContextImpl(const ModelData& modelData);
    ~InferenceContextImpl();
    InferenceContextImpl(const InferenceContextImpl&) = delete;
    InferenceContextImpl& operator=(const InferenceContextImpl&) = delete;

    std::shared_ptr<IInference> backend;
    // Set only when this context set up logging; it then tears it down.
    std::unique_ptr<log::LogSetup> logging;
};

}  // namespace tonwerk
