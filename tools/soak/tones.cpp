#include "tones.h"

#include <cmath>

namespace tonwerk::soak {

namespace {
constexpr double kPi = 3.141592653589793;
constexpr double kSampleRate = 44100.0;
constexpr std::size_t kRenormalizeEvery = 1u << 16;  // rotations drift from unit length by rounding
}  // namespace

Tones::Tones(std::mt19937_64& random) {
    std::uniform_real_distribution<double> hz(20.0, 16000.0);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (auto c = 0; c < 2; ++c) {
        for (std::size_t t = 0; t < kTones; ++t) {
            const double level = 0.25 * unit(random);  // three tones: peak below 0.75
            phasor[c][t] = std::polar(level, 2.0 * kPi * unit(random));
            step[c][t] = std::polar(1.0, 2.0 * kPi * hz(random) / kSampleRate);
        }
    }
}

std::array<float, 2> Tones::next() {
    std::array<float, 2> out{};
    const bool renormalize = ++frame % kRenormalizeEvery == 0;
    for (std::size_t c = 0; c < 2; ++c) {
        double sum = 0;
        for (std::size_t t = 0; t < kTones; ++t) {
            sum += phasor[c][t].imag();
            phasor[c][t] *= step[c][t];
            if (renormalize) step[c][t] /= std::abs(step[c][t]);
        }
        out[c] = static_cast<float>(sum);
    }
    return out;
}

}  // namespace tonwerk::soak
