// The generated test models of this build, in TONWERK_TEST_MODELS_DIR.
#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk::test {

// The bytes of a model by file name, e.g. "identity.onnx".
inline std::vector<unsigned char> readModel(const std::string& name) {
    std::ifstream in(std::string(TONWERK_TEST_MODELS_DIR) + "/" + name, std::ios::binary);
    if (!in) throw std::runtime_error("missing test model " + name);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace tonwerk::test
