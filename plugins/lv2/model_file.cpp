#include "model_file.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tonwerk::lv2 {

std::string bundleModelPath(const char* bundlePath) {
    std::string path = bundlePath != nullptr ? bundlePath : "";
    if (!path.empty() && path.back() != '/') path += '/';
    return path + "model.onnx";
}

std::vector<unsigned char> readModelFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot open the model " + path);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (bytes.empty()) throw std::runtime_error("the model " + path + " is empty");
    return bytes;
}

}  // namespace tonwerk::lv2
