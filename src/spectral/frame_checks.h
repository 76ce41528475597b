// Argument checks shared by everything that frames audio with a hop and a
// window, so each rejects the same inputs with the same message.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace tonwerk {

// Frame counts are derived by dividing by the hop; a zero hop would make
// every later call divide by zero.
inline void requireNonZeroHop(std::size_t hop, const std::string& owner) {
    if (hop == 0) {
        throw std::invalid_argument(owner + ": hop size must not be 0");
    }
}

// Every per-frame loop reads fftSize window values.
inline void requireWindowLength(std::size_t windowLength, std::size_t fftSize, const std::string& owner) {
    if (windowLength != fftSize) {
        throw std::invalid_argument(owner + ": window length " + std::to_string(windowLength) +
                                    " differs from the FFT size " + std::to_string(fftSize));
    }
}

}  // namespace tonwerk
