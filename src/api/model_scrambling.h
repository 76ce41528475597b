// Keyed models: the host ships the model bytes XOR-scrambled with a key it
// keeps itself, and we hold the plain bytes only while the model loads.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tonwerk {

// A private plain copy of a scrambled model. Its bytes are wiped before the
// memory is given back, so the plain model does not linger in freed heap.
class UnscrambledModel {
public:
    // Byte i of the copy is data[i] XOR key[i mod key length]; `key` must
    // not be empty.
    UnscrambledModel(const unsigned char* data, std::size_t size, const std::string& key);
    ~UnscrambledModel();
    UnscrambledModel(const UnscrambledModel&) = delete;
    UnscrambledModel& operator=(const UnscrambledModel&) = delete;

    const unsigned char* data() const { return bytes_.data(); }
    std::size_t size() const { return bytes_.size(); }

    // Overwrites the copy with zeros in a way the optimiser cannot drop.
    void wipe();

private:
    std::vector<unsigned char> bytes_;
};

}  // namespace tonwerk
