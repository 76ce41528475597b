// Endless band-limited stereo: three tones per channel below 16 kHz with
// random frequencies, levels and phases, peak below 0.75. Band-limited
// because a stream's first and last frames are exact only to within the
// windowing of its mirrored edges, which a signal near Nyquist would exceed.
#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <random>

namespace tonwerk::soak {

class Tones {
public:
    explicit Tones(std::mt19937_64& random);

    // The next frame, both channels.
    std::array<float, 2> next();

private:
    static constexpr std::size_t kTones = 3;
    std::array<std::array<std::complex<double>, kTones>, 2> phasor{};  // level and phase
    std::array<std::array<std::complex<double>, kTones>, 2> step{};    // one frame's rotation
    std::size_t frame = 0;
};

}  // namespace tonwerk::soak
