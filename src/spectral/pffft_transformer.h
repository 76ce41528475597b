// IFFTTransformer on PFFFT.
#pragma once

#include "spectral/fft_transformer.h"

#include <cstddef>
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

    // Width of what a row `inWidth` values wide transforms into. Throws
    // std::invalid_argument for a size PFFFT cannot take or a row that does
    // not fit it.
    std::size_t rowOutputWidth(std::size_t inWidth, bool forwardDirection) const;

    // One row from caller memory into caller memory, for per-frame callers
    // that must not allocate: `source` holds `inWidth` values, `target` gets
    // rowOutputWidth(inWidth, forwardDirection). As forward() does, the
    // Nyquist value is zeroed; unlike inverse(), nothing is scaled: the
    // caller divides each value by N. `source` and `target` may be the same.
    void transformRow(const float* source, std::size_t inWidth, float* target, bool forwardDirection);

    // transformRow for callers that keep their rows in AlignedFloats: the
    // full-width `row` is transformed in place, without the two copies
    // through scratch; `work` (size values, aligned) is PFFFT's own scratch.
    // Throws std::invalid_argument where rowOutputWidth(size) would.
    void transformAlignedRow(float* row, float* work, bool forwardDirection);

private:
    xt::xtensor<float, 2> transform(const xt::xtensor<float, 2>& input, bool forwardDirection);
    // transformRow once the widths are known to be valid.
    void transformCheckedRow(const float* source, std::size_t inWidth, float* target, std::size_t outWidth,
                             bool forwardDirection);

    PFFFT_Setup* setup;
    float* inputScratch;
    float* outputScratch;
    bool padNyquist;
    std::uint64_t size;
};

}  // namespace tonwerk
