// The ONNX Runtime backend: one session per model, run over caller memory.
#include "inference/inference.h"

#include "common/logging.h"
#include "inference/backend_log_names.h"
#include "inference/ort_session_runtime.h"
#include "inference/provider_walk.h"
#include "inference/runtime_loader.h"

#include <onnxruntime_cxx_api.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace tonwerk {
namespace {

constexpr const char* kRunName = "tonwerk::InferenceONNXImplMultiStem::run";

constexpr std::size_t kStemCount = 6;

// The network's inputs, in the order it takes them: the spectral block, then
// one flag per stem in stem index order.
constexpr const char* kInputNames[1 + kStemCount] = {
    "unified_input",  "vocals_flag",          "drum_flag",           "bass_flag",
    "piano_flag",     "acoustic_guitar_flag", "electric_guitar_flag"};

// Output name of each stem index. An output is matched to its stem by name,
// never by position, so callers may list outputs in any order.
constexpr const char* kStemOutputNames[kStemCount] = {"vocals_output", "drum_output",           "bass_output",
                                                      "piano_output",  "acoustic_guitar_output", "electric_guitar_output"};

constexpr std::int64_t kFlagShape[1] = {1};

// Stem index of an output name, or kStemCount for a name outside the table.
std::size_t stemIndexOf(const std::string& outputName) {
    for (std::size_t stem = 0; stem < kStemCount; ++stem) {
        if (outputName == kStemOutputNames[stem]) return stem;
    }
    return kStemCount;
}

enum class Side { inputs, outputs };

// The model's own input or output names, in model order; each name's buffer
// goes back to the runtime's allocator once copied.
std::vector<std::string> modelNames(const Ort::Session& session, Side side) {
    Ort::AllocatorWithDefaultOptions allocator;
    const std::size_t count = side == Side::inputs ? session.GetInputCount() : session.GetOutputCount();
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        const Ort::AllocatedStringPtr name = side == Side::inputs ? session.GetInputNameAllocated(i, allocator)
                                                                  : session.GetOutputNameAllocated(i, allocator);
        names.emplace_back(name.get());
    }
    return names;
}

std::vector<std::int64_t> shapeOf(const Ort::TypeInfo& typeInfo) {
    return typeInfo.GetTensorTypeAndShapeInfo().GetShape();
}

// No provider of this build sets a cache directory, but one that does
// leaves it behind once the session exists.
void removeModelCacheDirectory(const std::string& directory) {
    if (directory.empty()) return;
    try {
        if (std::filesystem::exists(directory)) std::filesystem::remove_all(directory);
    } catch (const std::exception& e) {
        TW_LOG(error, kBackendConstructorName) << "[INFERENCE_onnx] Failed to remove CoreML model cache directory: "
                                        << e.what();
    }
}

class InferenceONNXImplMultiStem final : public IInference {
public:
    InferenceONNXImplMultiStem(const void* model, std::size_t modelSize, const std::vector<std::string>& inputNames,
                               const std::vector<std::string>& outputNames, const std::string& preferredProvider,
                               const SessionTuning& tuning)
        : env_(ORT_LOGGING_LEVEL_WARNING, "") {
        TW_LOG(info, kBackendConstructorName) << "[INFERENCE_onnx] Create Inference ONNX";
        OrtSessionRuntime runtime(env_, model, modelSize, tuning);
        if (tuning.tryAccelerators) {
            walkExecutionProviders(runtime, preferredProvider);
        } else {
            runtime.createPlainSession();
        }
        session_ = runtime.takeSession();
        removeModelCacheDirectory(coreMlCacheDirectory_);

        // Runs always feed the fixed input names; the list is kept for reference.
        inputNames_ = inputNames.empty() ? modelNames(*session_, Side::inputs) : inputNames;
        outputNames_ = outputNames.empty() ? modelNames(*session_, Side::outputs) : outputNames;
        inputShape_ = shapeOf(session_->GetInputTypeInfo(0));
        outputShape_ = shapeOf(session_->GetOutputTypeInfo(0));
    }

    bool run(float* input, std::vector<float*> outputs, const std::array<std::int64_t, 4>& shape) override {
        if (outputs.size() < outputNames_.size()) {
            throw std::invalid_argument("InferenceONNXImplMultiStem::run: " + std::to_string(outputs.size()) +
                                        " output buffers for " + std::to_string(outputNames_.size()) + " outputs");
        }
        const auto count = static_cast<std::size_t>(shape[0] * shape[1] * shape[2] * shape[3]);
        const std::size_t bytes = count * sizeof(float);
        // Describes where the caller's buffers live; nothing is allocated through it.
        const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
        std::vector<Ort::Value> inputValues = bindInputs(memory, input, bytes, shape);
        std::vector<Ort::Value> outputValues = bindOutputs(memory, outputs, bytes);
        evaluate(inputValues, outputValues);
        zeroUnselected(outputs, bytes);
        return true;
    }

    std::size_t frames() const {
        return inputShape_.size() == 4 && inputShape_[2] > 0 ? static_cast<std::size_t>(inputShape_[2]) : 0;
    }

    void select(const StemFlags& flags) {
        stemFlags_ = {flags.vocals, flags.drum,           flags.bass,
                      flags.piano,  flags.acousticGuitar, flags.electricGuitar};
    }

private:
    std::vector<Ort::Value> bindInputs(const Ort::MemoryInfo& memory, float* input, std::size_t bytes,
                                       const std::array<std::int64_t, 4>& shape) {
        std::vector<Ort::Value> values;
        values.reserve(1 + kStemCount);
        values.push_back(Ort::Value::CreateTensor(memory, input, bytes, shape.data(), shape.size(),
                                                  ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT));
        // Views of our own flags, so a run reads the selection as it is now.
        for (bool& flag : stemFlags_) {
            values.push_back(Ort::Value::CreateTensor(memory, &flag, sizeof(bool), kFlagShape, 1,
                                                      ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL));
        }
        return values;
    }

    // Every output is announced with the input's byte length and the model's
    // declared shape of its first output, so a model whose outputs are larger
    // than the input, or not static, cannot be bound.
    std::vector<Ort::Value> bindOutputs(const Ort::MemoryInfo& memory, const std::vector<float*>& outputs,
                                        std::size_t bytes) const {
        std::vector<Ort::Value> values;
        values.reserve(outputNames_.size());
        for (std::size_t i = 0; i < outputNames_.size(); ++i) {
            values.push_back(Ort::Value::CreateTensor(memory, outputs[i], bytes, outputShape_.data(),
                                                      outputShape_.size(), ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT));
        }
        return values;
    }

    void evaluate(const std::vector<Ort::Value>& inputValues, std::vector<Ort::Value>& outputValues) {
        std::vector<const char*> outputNames;
        outputNames.reserve(outputNames_.size());
        for (const auto& name : outputNames_) outputNames.push_back(name.c_str());
        const Ort::RunOptions runOptions;
        try {
            session_->Run(runOptions, kInputNames, inputValues.data(), inputValues.size(), outputNames.data(),
                          outputValues.data(), outputValues.size());
        } catch (const std::exception& e) {
            // A failed run is reported to the log only; the pipeline goes on
            // with whatever the buffers hold.
            TW_LOG(error, kRunName) << "[INFERENCE_onnx] Exception during inference: " << e.what();
        }
    }

    void zeroUnselected(const std::vector<float*>& outputs, std::size_t bytes) const {
        for (std::size_t i = 0; i < outputNames_.size(); ++i) {
            const std::size_t stem = stemIndexOf(outputNames_[i]);
            if (stem == kStemCount || !stemFlags_[stem]) std::memset(outputs[i], 0, bytes);
        }
    }

    // Declared first so that it is released last, after the session.
    Ort::Env env_;
    std::unique_ptr<Ort::Session> session_;
    std::vector<std::string> inputNames_;
    std::vector<std::string> outputNames_;
    std::vector<std::int64_t> inputShape_;
    std::vector<std::int64_t> outputShape_;
    std::array<bool, kStemCount> stemFlags_{};
    std::string coreMlCacheDirectory_;
};

InferenceONNXImplMultiStem& ownBackend(IInference* inference, const char* function) {
    auto* backend = dynamic_cast<InferenceONNXImplMultiStem*>(inference);
    if (backend == nullptr) {
        throw std::invalid_argument(std::string(function) + ": the backend was not made by makeInferenceBackend");
    }
    return *backend;
}

}  // namespace

void setSelectedStems(std::shared_ptr<IInference>& inference, StemFlags flags) {
    ownBackend(inference.get(), "setSelectedStems").select(flags);
}

std::size_t modelFrames(const std::shared_ptr<IInference>& inference) {
    return ownBackend(inference.get(), "modelFrames").frames();
}

std::shared_ptr<IInference> makeInferenceBackend(const void* modelData, std::size_t modelSize,
                                                 const std::vector<std::string>& inputNames,
                                                 const std::vector<std::string>& outputNames,
                                                 const std::string& providerName) {
    return makeInferenceBackend(modelData, modelSize, inputNames, outputNames, providerName, SessionTuning{});
}

std::shared_ptr<IInference> makeInferenceBackend(const void* modelData, std::size_t modelSize,
                                                 const std::vector<std::string>& inputNames,
                                                 const std::vector<std::string>& outputNames,
                                                 const std::string& providerName, const SessionTuning& tuning) {
    initOnnxRuntime();
    return std::make_shared<InferenceONNXImplMultiStem>(modelData, modelSize, inputNames, outputNames,
                                                        providerName, tuning);
}

}  // namespace tonwerk
