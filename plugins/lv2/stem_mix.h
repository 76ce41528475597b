// The plugin's output: the adapter's stems and residual, each with its own
// gain, summed back into a stereo pair.
#pragma once

#include "ports.h"

#include <array>
#include <cstddef>

namespace tonwerk::lv2 {

class StemMix {
public:
    // A moved control glides to its new value over this many frames (5.8 ms
    // at 44.1 kHz) instead of stepping, which would click.
    static constexpr std::size_t kGlideFrames = 256;

    // New targets, clamped to the controls' range. The first glide starts
    // from silence, which costs nothing: a stream's first output frames are
    // its latency's silence.
    void setGains(const Gains& gains);
    // `frames` of the adapter's interleaved outputs into `left` and `right`.
    void mix(const float* const* outputs, std::size_t frames, float* left, float* right);

private:
    void glide();

    Gains gain_{};
    Gains target_{};
    Gains step_{};
    std::size_t glideLeft_ = 0;
};

}  // namespace tonwerk::lv2
