#include "onnx_interface.h"

#include "protobuf_wire.h"

#include <algorithm>
#include <set>

namespace tonwerk::tools {

namespace {

// Field numbers of onnx.proto (stable across ONNX releases).
constexpr std::uint32_t modelIrVersion = 1;
constexpr std::uint32_t modelGraph = 7;
constexpr std::uint32_t graphInitializer = 5;
constexpr std::uint32_t graphInput = 11;
constexpr std::uint32_t graphOutput = 12;
constexpr std::uint32_t graphSparseInitializer = 15;
constexpr std::uint32_t tensorName = 8;
constexpr std::uint32_t sparseTensorValues = 1;
constexpr std::uint32_t valueInfoName = 1;
constexpr std::uint32_t valueInfoType = 2;
constexpr std::uint32_t typeTensor = 1;
constexpr std::uint32_t tensorTypeElem = 1;
constexpr std::uint32_t tensorTypeShape = 2;
constexpr std::uint32_t shapeDim = 1;
constexpr std::uint32_t dimValue = 1;
constexpr std::uint32_t dimParam = 2;

void expectType(const WireField& field, WireType type) {
    if (field.type != type) throw WireFormatError("field " + std::to_string(field.number) + " has the wrong wire type");
}

OnnxDimension readDimension(const WireField& message) {
    OnnxDimension dim;
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == dimValue) {
            expectType(field, WireType::varint);
            dim.isStatic = true;
            dim.value = static_cast<std::int64_t>(field.varint);
        } else if (field.number == dimParam) {
            expectType(field, WireType::lengthDelimited);
            dim.param = field.text();
        }
    }
    return dim;
}

void readShape(const WireField& message, OnnxValueInfo& info) {
    info.hasShape = true;
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == shapeDim) {
            expectType(field, WireType::lengthDelimited);
            info.dims.push_back(readDimension(field));
        }
    }
}

void readTensorType(const WireField& message, OnnxValueInfo& info) {
    info.isTensor = true;
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == tensorTypeElem) {
            expectType(field, WireType::varint);
            info.elemType = static_cast<std::int32_t>(field.varint);
        } else if (field.number == tensorTypeShape) {
            expectType(field, WireType::lengthDelimited);
            readShape(field, info);
        }
    }
}

void readType(const WireField& message, OnnxValueInfo& info) {
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == typeTensor) {
            expectType(field, WireType::lengthDelimited);
            readTensorType(field, info);
        }
    }
}

OnnxValueInfo readValueInfo(const WireField& message) {
    OnnxValueInfo info;
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == valueInfoName) {
            expectType(field, WireType::lengthDelimited);
            info.name = field.text();
        } else if (field.number == valueInfoType) {
            expectType(field, WireType::lengthDelimited);
            readType(field, info);
        }
    }
    return info;
}

std::string readNameField(const WireField& message, std::uint32_t number) {
    std::string name;
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == number && field.type == WireType::lengthDelimited) name = field.text();
    }
    return name;
}

std::string readSparseInitializerName(const WireField& message) {
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == sparseTensorValues && field.type == WireType::lengthDelimited) {
            return readNameField(field, tensorName);
        }
    }
    return {};
}

// Repeated occurrences of the graph field merge, as protobuf defines it, so
// the lists simply accumulate.
void readGraph(const WireField& message, OnnxInterface& model, std::set<std::string>& initializers) {
    model.hasGraph = true;
    WireReader reader(message.data, message.size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        switch (field.number) {
        case graphInput:
            expectType(field, WireType::lengthDelimited);
            model.inputs.push_back(readValueInfo(field));
            break;
        case graphOutput:
            expectType(field, WireType::lengthDelimited);
            model.outputs.push_back(readValueInfo(field));
            break;
        case graphInitializer:
            expectType(field, WireType::lengthDelimited);
            initializers.insert(readNameField(field, tensorName));
            break;
        case graphSparseInitializer:
            expectType(field, WireType::lengthDelimited);
            initializers.insert(readSparseInitializerName(field));
            break;
        default:
            break;
        }
    }
}

}  // namespace

OnnxInterface readOnnxInterface(const unsigned char* data, std::size_t size) {
    OnnxInterface model;
    std::set<std::string> initializers;
    WireReader reader(data, size);
    while (!reader.atEnd()) {
        const WireField field = reader.next();
        if (field.number == modelIrVersion) {
            expectType(field, WireType::varint);
            model.irVersion = static_cast<std::int64_t>(field.varint);
        } else if (field.number == modelGraph) {
            expectType(field, WireType::lengthDelimited);
            readGraph(field, model, initializers);
        }
    }
    // Older files list initializers among the inputs too; they have defaults
    // and are not part of what a caller feeds.
    model.inputs.erase(std::remove_if(model.inputs.begin(), model.inputs.end(),
                                      [&](const OnnxValueInfo& in) { return initializers.count(in.name) != 0; }),
                       model.inputs.end());
    return model;
}

std::string onnxElemTypeName(std::int32_t elemType) {
    static const char* const names[] = {"undefined", "float32", "uint8",      "int8",      "uint16",
                                        "int16",     "int32",   "int64",      "string",    "bool",
                                        "float16",   "float64", "uint32",     "uint64",    "complex64",
                                        "complex128", "bfloat16"};
    if (elemType >= 0 && elemType < static_cast<std::int32_t>(sizeof(names) / sizeof(names[0]))) {
        return names[elemType];
    }
    return "type " + std::to_string(elemType);
}

}  // namespace tonwerk::tools
