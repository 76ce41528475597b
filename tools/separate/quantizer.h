// Float samples to 16- or 24-bit integers: rounded to the nearest step,
// optionally with triangular (TPDF) dither of ±1 step, clipped at full scale.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tonwerk::tools {

class Quantizer {
public:
    // `seed` makes the dither of a file reproducible from run to run.
    Quantizer(int bits, bool dither, std::uint64_t seed);

    // Writes each sample as its step number shifted to the top of an int32,
    // the layout libsndfile's integer writers take.
    void convert(const float* in, std::size_t count, std::int32_t* out);

    // Samples that lay beyond full scale and were clipped so far.
    std::size_t clipped() const { return clipped_; }

private:
    double uniform();

    double scale_;
    double lowest_;
    double highest_;
    int shift_;
    bool dither_;
    std::uint64_t state_;
    std::size_t clipped_ = 0;
};

}  // namespace tonwerk::tools
