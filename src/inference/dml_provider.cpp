#include "inference/dml_provider.h"

#include "inference/runtime_loader.h"

namespace tonwerk {
namespace {

// The leading entry of the runtime's DirectML provider table
// (dml_provider_factory.h, which only Windows packages ship). Nothing past
// it is used, so nothing past it is declared.
struct DmlProviderApi {
    OrtStatus*(ORT_API_CALL* SessionOptionsAppendExecutionProvider_DML)(OrtSessionOptions* options, int deviceId);
};

// The statuses are deliberately not acted upon, but they are still owned by
// us and must be given back.
void ignoreStatus(OrtStatus* status) {
    if (status != nullptr) Ort::GetApi().ReleaseStatus(status);
}

}  // namespace

void appendDirectMl(Ort::SessionOptions& options, int deviceIndex) {
    options.SetExecutionMode(ORT_SEQUENTIAL);
    options.DisableMemPattern();
    const void* table = nullptr;
    ignoreStatus(Ort::GetApi().GetExecutionProviderApi("DML", kOrtApiVersion, &table));
    // A runtime without DirectML leaves no table to call through.
    if (table == nullptr) return;
    const auto* dml = static_cast<const DmlProviderApi*>(table);
    ignoreStatus(dml->SessionOptionsAppendExecutionProvider_DML(options, deviceIndex));
}

}  // namespace tonwerk
