// IFFTTransformer on PFFFT.
#pragma once

#include "spectral/fft_transformer.h"

#include <cstdint>

struct PFFFT_Setup;

namespace tonwerk {

// Not thread-safe: all calls share the object's scratch buffers.
class PFFFTTransformer : public IFFTTransformer {
public:
    // `size` must be a length PFFFT accepts for real transforms (4096 is).
    // With `padNyquist`, spectrum rows are size + 2 wide and end in a (0, 0) pair.
    PFFFTTransformer(std::uint64_t size, bool padNyquist);
    ~PFFFTTransformer() override;
    PFFFTTransformer(const PFFFTTransformer&) = delete;
    PFFFTTransformer& operator=(const PFFFTTransformer&) = delete;

    xt::xtensor<float, 2> forward(const xt::xtensor<float, 2>& input) override;
    xt::xtensor<float, 2> inverse(const xt::xtensor<float, 2>& input) override;

private:
    xt::xtensor<float, 2> transform(const xt::xtensor<float, 2>& input, bool forwardDirection);

    PFFFT_Setup* setup;
    float* inputScratch;
    float* outputScratch;
    bool padNyquist;
    std::uint64_t size;
};

}  // namespace tonwerk
