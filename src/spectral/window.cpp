#include "spectral/window.h"

#include <cmath>
#include <cstddef>
#include <stdexcept>

namespace tonwerk {
namespace {

constexpr double kTwoPi = 6.283185307179586;

// The symmetric shapes divide by L - 1 in double precision; for L == 1 that is
// 0 / 0 and the single sample is NaN, which callers must accept.
void fillHann(std::vector<float>& w, std::int32_t length) {
    for (std::int32_t n = 0; n < length; ++n) {
        const double phase = kTwoPi * n / (length - 1);
        w[static_cast<std::size_t>(n)] = static_cast<float>((1.0 - std::cos(phase)) * 0.5);
    }
}

void fillHamming(std::vector<float>& w, std::int32_t length) {
    for (std::int32_t n = 0; n < length; ++n) {
        const double phase = kTwoPi * n / (length - 1);
        w[static_cast<std::size_t>(n)] = static_cast<float>(0.54 - 0.46 * std::cos(phase));
    }
}

// Periodic and entirely single precision: the pipeline's reconstruction is
// tuned to exactly these values (w[0] is about -1.49e-08, not 0).
void fillBlackman(std::vector<float>& w) {
    const float step = static_cast<float>(kTwoPi / static_cast<double>(static_cast<float>(w.size())));
    const float doubleStep = step + step;
    for (std::size_t n = 0; n < w.size(); ++n) {
        const float x = static_cast<float>(n);
        const float first = 0.42f - 0.5f * std::cos(x * step);
        w[n] = first + 0.08f * std::cos(x * doubleStep);
    }
}

}  // namespace

std::vector<float> makeWindow(WindowType type, std::int32_t length) {
    if (type != Hann && type != Hamming && type != Blackman) {
        throw std::runtime_error("Unknown window type");
    }
    // A negative length becomes an impossible size and fails in the allocation.
    std::vector<float> w(static_cast<std::size_t>(static_cast<std::int64_t>(length)));
    switch (type) {
        case Hann: fillHann(w, length); break;
        case Hamming: fillHamming(w, length); break;
        case Blackman: fillBlackman(w); break;
    }
    return w;
}

}  // namespace tonwerk
