// The transform's layouts and refusals. Its values against the plain
// overlap-add are in test_overlap_add_synthesizer, and whole streams in the
// golden hashes (tests/api).
#include "spectral/pffft_transformer.h"

#include <gtest/gtest.h>

#include <xtensor/xview.hpp>

#include <stdexcept>

namespace tonwerk {
namespace {

constexpr std::size_t kN = 4096;

using Rows = xt::xtensor<float, 2>;

Rows zeroRows(std::size_t rows, std::size_t width) { return Rows({rows, width}, 0.0f); }

// The alternating row is pure Nyquist, whose slot is always cleared; the
// padded layout only adds a zero pair at the end.
TEST(PFFFTTransformer, PackedLayoutDropsNyquistAndRejectsWhatItCannotTransform) {
    Rows rows = zeroRows(2, kN);
    for (std::size_t i = 0; i < kN; ++i) {
        rows(0, i) = 0.5f;
        rows(1, i) = (i % 2 == 0) ? 1.0f : -1.0f;
    }
    for (const bool padded : {false, true}) {
        PFFFTTransformer fft(kN, padded);
        const auto spectrum = fft.forward(rows);
        ASSERT_EQ(spectrum.shape(), (std::array<std::size_t, 2>{2, padded ? kN + 2 : kN}));
        for (std::size_t i = 0; i < spectrum.shape()[1]; ++i) {
            EXPECT_EQ(spectrum(0, i), i == 0 ? 0.5f * kN : 0.0f) << i;
            EXPECT_EQ(spectrum(1, i), 0.0f) << i;
        }
        EXPECT_EQ(fft.forward(zeroRows(0, kN)).shape()[0], 0u);
    }
    EXPECT_EQ(PFFFTTransformer(kN, false).inverse(zeroRows(0, kN)).shape(), (std::array<std::size_t, 2>{0, kN}));

    EXPECT_THROW(PFFFTTransformer(100, false).forward(zeroRows(1, 100)), std::invalid_argument);
    EXPECT_THROW(PFFFTTransformer(64, false).forward(zeroRows(1, 65)), std::invalid_argument);

    // The padded layout's inverse ignores its trailing pair.
    PFFFTTransformer padded(kN, true);
    auto wide = padded.forward(rows);
    xt::view(wide, xt::all(), xt::range(kN, kN + 2)) = 99.0f;
    const auto back = padded.inverse(wide);
    ASSERT_EQ(back.shape(), rows.shape());
    for (std::size_t i = 0; i < kN; ++i) {
        ASSERT_NEAR(back(0, i), 0.5f, 1e-6) << i;
        ASSERT_NEAR(back(1, i), 0.0f, 1e-6) << i;  // pure Nyquist: dropped
    }
}

}  // namespace
}  // namespace tonwerk
