#include "api/model_scrambling.h"

#include <cstring>
#include <stdexcept>

namespace tonwerk {
namespace {

// A plain memset before free is a dead store that compilers remove.
void secureZero(unsigned char* bytes, std::size_t size) {
    if (size == 0) return;  // an empty buffer's pointer may be null, which explicit_bzero must not get
#if defined(__GLIBC__)
    explicit_bzero(bytes, size);
#else
    volatile unsigned char* target = bytes;
    for (std::size_t i = 0; i < size; ++i) target[i] = 0;
#endif
}

}  // namespace

UnscrambledModel::UnscrambledModel(const unsigned char* data, std::size_t size, const std::string& key)
    : bytes_(size) {
    if (key.empty()) throw std::invalid_argument("UnscrambledModel: the key must not be empty");
    if (data == nullptr && size != 0) throw std::invalid_argument("UnscrambledModel: no model bytes to unscramble");
    const std::size_t keyLength = key.size();
    for (std::size_t i = 0; i < size; ++i) {
        bytes_[i] = static_cast<unsigned char>(data[i] ^ static_cast<unsigned char>(key[i % keyLength]));
    }
}

UnscrambledModel::~UnscrambledModel() { wipe(); }

void UnscrambledModel::wipe() { secureZero(bytes_.data(), bytes_.size()); }

}  // namespace tonwerk
