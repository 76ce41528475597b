#include "model_scramble.h"

namespace tonwerk::tools {

void xorWithKey(std::vector<unsigned char>& bytes, const std::string& key) {
    if (key.empty()) return;
    const std::size_t keyLength = key.size();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] ^= static_cast<unsigned char>(key[i % keyLength]);
    }
}

}  // namespace tonwerk::tools
