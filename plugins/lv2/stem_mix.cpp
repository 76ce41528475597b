#include "stem_mix.h"

#include <algorithm>

namespace tonwerk::lv2 {
namespace {

// Hosts should keep controls in range; NaN from a broken one becomes silence.
float clampedGain(float gain) {
    return gain >= kMinGain ? std::min(gain, kMaxGain) : kMinGain;
}

}  // namespace

void StemMix::setGains(const Gains& gains) {
    Gains target;
    std::transform(gains.begin(), gains.end(), target.begin(), clampedGain);
    if (target == target_) return;
    target_ = target;
    for (std::size_t k = 0; k < kGainCount; ++k) step_[k] = (target_[k] - gain_[k]) / kGlideFrames;
    glideLeft_ = kGlideFrames;
}

void StemMix::glide() {
    if (--glideLeft_ == 0) {
        gain_ = target_;  // exactly, whatever the steps rounded to
        return;
    }
    for (std::size_t k = 0; k < kGainCount; ++k) gain_[k] += step_[k];
}

void StemMix::mix(const float* const* outputs, std::size_t frames, float* left, float* right) {
    for (std::size_t i = 0; i < frames; ++i) {
        if (glideLeft_ > 0) glide();
        float l = 0.0F;
        float r = 0.0F;
        for (std::size_t k = 0; k < kGainCount; ++k) {
            const float* output = outputs[kMixedOutputs[k]];
            l += gain_[k] * output[2 * i];
            r += gain_[k] * output[2 * i + 1];
        }
        left[i] = l;
        right[i] = r;
    }
}

}  // namespace tonwerk::lv2
