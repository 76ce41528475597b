#include "spectral/pffft_transformer.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <xtensor/xrandom.hpp>
#include <xtensor/xview.hpp>

#include <cmath>
#include <stdexcept>

namespace tonwerk {
namespace {

constexpr std::size_t kN = 4096;

using Rows = xt::xtensor<float, 2>;

Rows zeroRows(std::size_t rows, std::size_t width) { return Rows({rows, width}, 0.0f); }

Rows randomRows(std::size_t rows) {
    xt::random::seed(7);
    return xt::random::rand<float>({rows, kN}, -1.0f, 1.0f);
}

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

// Against a double-precision DFT, X[k] = sum x[n] e^{-2 pi i k n / N}. A
// single-precision FFT's error grows like eps * log2(N) * |x|; with inputs in
// [-1, 1] bins are about sqrt(N / 3) ~ 37 in magnitude and the error stays
// near 1.5e-5, so 2e-3 leaves a wide margin over rounding (and over other
// SIMD paths) while any wrong bin, sign or slot is off by O(1).
TEST(PFFFTTransformer, ForwardMatchesReferenceDft) {
    PFFFTTransformer fft(kN, false);
    const auto input = randomRows(2);
    const auto spectrum = fft.forward(input);
    for (std::size_t r = 0; r < 2; ++r) {
        for (std::size_t k = 0; k < kN / 2; ++k) {
            double re = 0.0;
            double im = 0.0;
            for (std::size_t n = 0; n < kN; ++n) {
                const double phase = -2.0 * test::kPi * static_cast<double>((k * n) % kN) / kN;
                re += input(r, n) * std::cos(phase);
                im += input(r, n) * std::sin(phase);
            }
            if (k == 0) {
                EXPECT_NEAR(spectrum(r, 0), re, 2e-3);
                EXPECT_EQ(spectrum(r, 1), 0.0f);
            } else {
                EXPECT_NEAR(spectrum(r, 2 * k), re, 2e-3) << r << " bin " << k;
                EXPECT_NEAR(spectrum(r, 2 * k + 1), im, 2e-3) << r << " bin " << k;
            }
        }
    }
}

}  // namespace
}  // namespace tonwerk
