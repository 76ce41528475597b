// The interface of an ONNX model (its graph's inputs and outputs with element
// types and declared shapes), read straight from the serialized file.
//
// Reading the few messages involved from the wire format keeps the model
// check independent of the inference runtime: it works on any machine,
// needs no runtime library next to the tool, and can name every problem at
// once instead of stopping at the runtime's first complaint.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tonwerk::tools {

struct OnnxDimension {
    bool isStatic = false;   // dim_value given
    std::int64_t value = 0;  // valid when isStatic
    std::string param;       // symbolic name of a free dimension, may be empty
};

struct OnnxValueInfo {
    std::string name;
    bool isTensor = false;     // false: sequence, map, optional, sparse or no type at all
    std::int32_t elemType = 0;  // ONNX TensorProto.DataType; 0 = undefined
    bool hasShape = false;     // false: the model declares no shape at all (any rank)
    std::vector<OnnxDimension> dims;
};

struct OnnxInterface {
    bool hasGraph = false;
    std::int64_t irVersion = 0;
    // Graph inputs that are not initializers: what a caller has to feed.
    std::vector<OnnxValueInfo> inputs;
    std::vector<OnnxValueInfo> outputs;
};

// ONNX element type codes used in messages and checks.
enum OnnxElemType : std::int32_t { onnxFloat = 1, onnxBool = 9 };

// Throws WireFormatError (protobuf_wire.h) when the bytes are not a
// well-formed ONNX model message.
OnnxInterface readOnnxInterface(const unsigned char* data, std::size_t size);

// "float32", "bool", "int64", ... or "type <code>" for codes it does not know.
std::string onnxElemTypeName(std::int32_t elemType);

}  // namespace tonwerk::tools
