// The model-contract check on hand-built ONNX messages, so that each kind of
// deviation can be produced on its own, without the Python tooling.
#include "model_contract.h"
#include "onnx_interface.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tonwerk::tools {
namespace {

// Minimal protocol-buffer encoding of the ONNX messages involved.
std::string varint(std::uint64_t value) {
    std::string out;
    do {
        unsigned char byte = value & 0x7f;
        value >>= 7;
        if (value != 0) byte |= 0x80;
        out += static_cast<char>(byte);
    } while (value != 0);
    return out;
}
std::string intField(std::uint32_t number, std::uint64_t value) { return varint(number << 3) + varint(value); }
std::string bytesField(std::uint32_t number, const std::string& payload) {
    return varint((number << 3) | 2) + varint(payload.size()) + payload;
}

struct Dim {
    std::int64_t value;
    std::string param;  // non-empty: a free dimension
};

std::string valueInfo(const std::string& name, int elemType, const std::vector<Dim>* dims) {
    std::string tensor = intField(1, static_cast<std::uint64_t>(elemType));
    if (dims != nullptr) {
        std::string shape;
        for (const Dim& dim : *dims) {
            shape += bytesField(1, dim.param.empty() ? intField(1, static_cast<std::uint64_t>(dim.value))
                                                     : bytesField(2, dim.param));
        }
        tensor += bytesField(2, shape);
    }
    return bytesField(1, name) + bytesField(2, bytesField(1, tensor));
}

const std::vector<Dim> spectrum = {{1, ""}, {4, ""}, {256, ""}, {2048, ""}};
const std::vector<Dim> flag = {{1, ""}};

struct GraphShape {
    std::vector<std::string> inputs;   // serialized ValueInfoProto
    std::vector<std::string> outputs;
    std::vector<std::string> initializers;  // names
};

GraphShape contractGraph() {
    GraphShape graph;
    graph.inputs.push_back(valueInfo("unified_input", onnxFloat, &spectrum));
    for (const std::string& name : contractFlagInputs) graph.inputs.push_back(valueInfo(name, onnxBool, &flag));
    for (const std::string& name : contractOutputs) graph.outputs.push_back(valueInfo(name, onnxFloat, &spectrum));
    return graph;
}

std::string serialize(const GraphShape& graph) {
    std::string message = bytesField(2, "g");
    for (const std::string& name : graph.initializers) message += bytesField(5, bytesField(8, name) + intField(2, 1));
    for (const std::string& input : graph.inputs) message += bytesField(11, input);
    for (const std::string& output : graph.outputs) message += bytesField(12, output);
    return intField(1, 8) + bytesField(2, "test") + bytesField(7, message) + bytesField(8, intField(2, 17));
}

std::vector<std::string> check(const std::string& bytes) {
    return checkModelBytes(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

TEST(ModelContract, TheContractGraphPassesWithInitializersListedAsInputs) {
    EXPECT_EQ(check(serialize(contractGraph())), std::vector<std::string>{});

    // Initializers listed as inputs are not inputs.
    GraphShape graph = contractGraph();
    graph.initializers.push_back("weights");
    graph.inputs.insert(graph.inputs.begin() + 1, valueInfo("weights", onnxFloat, &flag));
    EXPECT_EQ(check(serialize(graph)), std::vector<std::string>{});
}

TEST(ModelContract, EachDeviationIsNamed) {
    GraphShape graph = contractGraph();
    const std::vector<Dim> rank3 = {{1, ""}, {4, ""}, {0, "frames"}};
    graph.inputs[0] = valueInfo("unified_input", onnxFloat, &rank3);
    std::swap(graph.inputs[1], graph.inputs[2]);                      // drum_flag before vocals_flag
    graph.inputs[3] = valueInfo("bass_flag", onnxFloat, &flag);        // not bool
    graph.outputs[5] = valueInfo("bass_output", onnxFloat, nullptr);   // no shape
    graph.outputs.push_back(valueInfo("extra_output", onnxFloat, &spectrum));
    const std::vector<Dim> wide = {{1, ""}, {4, ""}, {256, ""}, {4096, ""}};
    graph.outputs[0] = valueInfo("vocals_output", 7, &wide);           // int64 and too wide

    EXPECT_EQ(check(serialize(graph)),
              (std::vector<std::string>{
                  "inputs are in the order unified_input, drum_flag, vocals_flag, bass_flag, piano_flag, "
                  "acoustic_guitar_flag, electric_guitar_flag, expected unified_input, vocals_flag, drum_flag, "
                  "bass_flag, piano_flag, acoustic_guitar_flag, electric_guitar_flag",
                  "input \"unified_input\" has 3 dimensions [1, 4, frames], expected [1, 4, 256, 2048]",
                  "input \"bass_flag\" has element type float32, expected bool",
                  "unexpected output \"extra_output\"",
                  "output \"vocals_output\" has element type int64, expected float32",
                  "output \"vocals_output\" dimension 3 is 4096, expected 2048",
                  "output \"bass_output\" declares no shape, expected [1, 4, 256, 2048]",
              }));
}

TEST(ModelContract, BytesThatAreNoModelGiveOneViolation) {
    const std::string good = serialize(contractGraph());
    const std::string unreadable =
        "the file is not a readable ONNX model (damaged, or scrambled with another key)";
    EXPECT_EQ(check(good.substr(0, good.size() / 2)), std::vector<std::string>{unreadable});
    EXPECT_EQ(check(intField(7, 5)), std::vector<std::string>{unreadable});  // graph as a number
    EXPECT_EQ(check(""), std::vector<std::string>{"the file is empty"});
    EXPECT_EQ(check(intField(1, 8)), std::vector<std::string>{"the model has no graph"});
}

}  // namespace
}  // namespace tonwerk::tools
