// Batched real FFTs of one fixed size: every row of a 2-D array at once.
#pragma once

#include <xtensor/xtensor.hpp>

namespace tonwerk {

// Spectrum rows use the ordered packing: [0] DC, [1] Nyquist, then
// (re, im) of bins 1 .. N/2-1 at [2k], [2k+1].
class IFFTTransformer {
public:
    virtual ~IFFTTransformer() = default;
    // Unscaled forward transform of each row; the Nyquist value is always 0.
    virtual xt::xtensor<float, 2> forward(const xt::xtensor<float, 2>& input) = 0;
    // Inverse of each row, scaled by 1/N.
    virtual xt::xtensor<float, 2> inverse(const xt::xtensor<float, 2>& input) = 0;
};

}  // namespace tonwerk
