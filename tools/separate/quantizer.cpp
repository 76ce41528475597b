#include "quantizer.h"

#include <cmath>

namespace tonwerk::tools {

Quantizer::Quantizer(int bits, bool dither, std::uint64_t seed)
    : scale_(std::ldexp(1.0, bits - 1)),
      lowest_(-scale_),
      highest_(scale_ - 1.0),
      shift_(32 - bits),
      dither_(dither),
      state_(seed * 0x9E3779B97F4A7C15ull + 1) {}

// xorshift64*: plenty for dither, and the same sequence everywhere.
double Quantizer::uniform() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return static_cast<double>((state_ * 0x2545F4914F6CDD1Dull) >> 11) * 0x1.0p-53;
}

void Quantizer::convert(const float* in, std::size_t count, std::int32_t* out) {
    for (std::size_t i = 0; i < count; ++i) {
        double step = static_cast<double>(in[i]) * scale_;
        if (dither_) step += uniform() - uniform();
        step = std::nearbyint(step);
        if (!(step >= lowest_ && step <= highest_)) {  // NaN included
            ++clipped_;
            step = step > 0 ? highest_ : (step < 0 ? lowest_ : 0.0);
        }
        out[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::int32_t>(step)) << shift_);
    }
}

}  // namespace tonwerk::tools
