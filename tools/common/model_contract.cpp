#include "model_contract.h"

#include "protobuf_wire.h"

#include <algorithm>
#include <sstream>

namespace tonwerk::tools {

namespace {

std::string quoted(const std::string& name) { return "\"" + name + "\""; }

std::string describeDims(const OnnxValueInfo& value) {
    std::ostringstream out;
    out << '[';
    for (std::size_t i = 0; i < value.dims.size(); ++i) {
        if (i != 0) out << ", ";
        const OnnxDimension& dim = value.dims[i];
        if (dim.isStatic) out << dim.value;
        else out << (dim.param.empty() ? std::string("?") : dim.param);
    }
    out << ']';
    return out.str();
}

template <std::size_t N>
std::string describeShape(const std::array<std::int64_t, N>& shape) {
    std::ostringstream out;
    out << '[';
    for (std::size_t i = 0; i < N; ++i) out << (i != 0 ? ", " : "") << shape[i];
    out << ']';
    return out.str();
}

std::string joinNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

// Element type and an exactly static shape; `what` is "input" or "output".
template <std::size_t N>
void checkTensor(const OnnxValueInfo& value, const std::string& what, std::int32_t elemType,
                 const std::array<std::int64_t, N>& shape, std::vector<std::string>& violations) {
    const std::string subject = what + " " + quoted(value.name);
    if (!value.isTensor) {
        violations.push_back(subject + " is not a tensor");
        return;
    }
    if (value.elemType != elemType) {
        violations.push_back(subject + " has element type " + onnxElemTypeName(value.elemType) + ", expected " +
                             onnxElemTypeName(elemType));
    }
    if (!value.hasShape) {
        violations.push_back(subject + " declares no shape, expected " + describeShape(shape));
        return;
    }
    if (value.dims.size() != N) {
        violations.push_back(subject + " has " + std::to_string(value.dims.size()) + " dimensions " +
                             describeDims(value) + ", expected " + describeShape(shape));
        return;
    }
    for (std::size_t i = 0; i < N; ++i) {
        const OnnxDimension& dim = value.dims[i];
        if (!dim.isStatic) {
            const std::string name = dim.param.empty() ? "" : " (" + quoted(dim.param) + ")";
            violations.push_back(subject + " dimension " + std::to_string(i) + " is free" + name + ", expected " +
                                 std::to_string(shape[i]));
        } else if (dim.value != shape[i]) {
            violations.push_back(subject + " dimension " + std::to_string(i) + " is " + std::to_string(dim.value) +
                                 ", expected " + std::to_string(shape[i]));
        }
    }
}

std::vector<std::string> namesOf(const std::vector<OnnxValueInfo>& values) {
    std::vector<std::string> names;
    for (const OnnxValueInfo& value : values) names.push_back(value.name);
    return names;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Missing and unexpected names, and (for inputs) the order of those present:
// the library feeds inputs by position.
void checkNames(const std::vector<std::string>& actual, const std::vector<std::string>& expected,
                const std::string& what, bool orderMatters, std::vector<std::string>& violations) {
    for (const std::string& name : expected) {
        if (!contains(actual, name)) violations.push_back(what + " " + quoted(name) + " is missing");
    }
    for (const std::string& name : actual) {
        if (!contains(expected, name)) violations.push_back("unexpected " + what + " " + quoted(name));
    }
    if (!orderMatters) return;
    std::vector<std::string> actualKnown;
    std::vector<std::string> expectedPresent;
    for (const std::string& name : actual) {
        if (contains(expected, name)) actualKnown.push_back(name);
    }
    for (const std::string& name : expected) {
        if (contains(actual, name)) expectedPresent.push_back(name);
    }
    if (actualKnown != expectedPresent) {
        violations.push_back(what + "s are in the order " + joinNames(actualKnown) + ", expected " +
                             joinNames(expectedPresent));
    }
}

}  // namespace

std::vector<std::string> checkModelContract(const OnnxInterface& model) {
    std::vector<std::string> violations;
    if (!model.hasGraph) {
        violations.push_back("the model has no graph");
        return violations;
    }

    std::vector<std::string> expectedInputs{contractSpectrumInput};
    expectedInputs.insert(expectedInputs.end(), contractFlagInputs.begin(), contractFlagInputs.end());
    checkNames(namesOf(model.inputs), expectedInputs, "input", true, violations);
    for (const OnnxValueInfo& input : model.inputs) {
        if (input.name == contractSpectrumInput) {
            checkTensor(input, "input", onnxFloat, contractTensorShape, violations);
        } else if (contains({contractFlagInputs.begin(), contractFlagInputs.end()}, input.name)) {
            checkTensor(input, "input", onnxBool, std::array<std::int64_t, 1>{1}, violations);
        }
    }

    const std::vector<std::string> expectedOutputs(contractOutputs.begin(), contractOutputs.end());
    checkNames(namesOf(model.outputs), expectedOutputs, "output", false, violations);
    for (const OnnxValueInfo& output : model.outputs) {
        if (contains(expectedOutputs, output.name)) {
            checkTensor(output, "output", onnxFloat, contractTensorShape, violations);
        }
    }
    return violations;
}

std::vector<std::string> checkModelBytes(const unsigned char* data, std::size_t size) {
    if (size == 0) return {"the file is empty"};
    OnnxInterface model;
    try {
        model = readOnnxInterface(data, size);
    } catch (const WireFormatError&) {
        return {"the file is not a readable ONNX model (damaged, or scrambled with another key)"};
    }
    return checkModelContract(model);
}

}  // namespace tonwerk::tools
