// Reading the generated test models.
#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk::test {

inline std::string modelPath(const std::string& name) { return std::string(TONWERK_TEST_MODELS_DIR) + "/" + name; }

inline std::vector<unsigned char> readModel(const std::string& name) {
    std::ifstream in(modelPath(name), std::ios::binary);
    if (!in) throw std::runtime_error("missing test model " + modelPath(name));
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace tonwerk::test
