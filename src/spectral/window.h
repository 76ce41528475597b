// Analysis/synthesis windows.
#pragma once

#include <cstdint>
#include <vector>

namespace tonwerk {

enum WindowType : std::int32_t {
    Hann = 0,      // symmetric, double precision
    Hamming = 1,   // symmetric, double precision
    Blackman = 2,  // periodic, single precision
};

// A window of `length` samples. Throws std::runtime_error "Unknown window type"
// for any other type value.
std::vector<float> makeWindow(WindowType type, std::int32_t length);

}  // namespace tonwerk
