// The XOR scrambling the library undoes when a ModelData carries a key.
#pragma once

#include <string>
#include <vector>

namespace tonwerk::tools {

// Byte i becomes byte i XOR key[i mod key length]; applying it twice with the
// same key restores the bytes, so it both scrambles and unscrambles. An
// empty key leaves the bytes as they are.
void xorWithKey(std::vector<unsigned char>& bytes, const std::string& key);

}  // namespace tonwerk::tools
