#include "pipeline/overlap_add_synthesizer.h"
#include "spectral/window.h"

#include <gtest/gtest.h>

#include <xtensor/xrandom.hpp>
#include <xtensor/xview.hpp>

#include <stdexcept>

namespace tonwerk {
namespace {

constexpr std::size_t kN = 4096;
constexpr std::size_t kHop = 1024;

using Rows = xt::xtensor<float, 2>;

const std::vector<float>& blackman() {
    static const std::vector<float> window = makeWindow(Blackman, kN);
    return window;
}

Rows randomSpectra(std::size_t channels, unsigned seed) {
    xt::random::seed(seed);
    return xt::random::rand<float>(std::array<std::size_t, 2>{channels, kN}, -10.0f, 10.0f);
}

// No epsilon may enter the division, even where the window is ~1e-8.
TEST(OverlapAddSynthesizer, FirstFrameIsSamplesOverWindow) {
    OverlapAddSynthesizer ola(2, kN, kHop, blackman());
    const Rows frame = randomSpectra(2, 1);
    const Rows t = PFFFTTransformer(kN, false).inverse(frame);

    const Rows out = ola.processFrame(frame);
    ASSERT_EQ(out.shape(), (std::array<std::size_t, 2>{2, kHop}));
    const auto& w = blackman();
    for (std::size_t c = 0; c < 2; ++c) {
        for (std::size_t i = 0; i < kHop; ++i) {
            ASSERT_EQ(out(c, i), (t(c, i) * w[i]) / (w[i] * w[i])) << c << "," << i;
        }
    }
}

// Frames whose inverse is (a multiple of) the window itself must reconstruct
// that multiple: the sums of window x frame and of window^2 coincide. The
// FFT round trip perturbs the frame by ~1e-7, so 1e-4 is the tolerance; the
// first frame is skipped because its edge divides by window[0]^2 ~ 2e-16.
TEST(OverlapAddSynthesizer, WindowShapedFramesGiveConstantOutput) {
    Rows rows({2, kN});
    for (std::size_t i = 0; i < kN; ++i) {
        rows(0, i) = blackman()[i];
        rows(1, i) = 2.0f * blackman()[i];
    }
    const Rows frame = PFFFTTransformer(kN, false).forward(rows);
    OverlapAddSynthesizer ola(2, kN, kHop, blackman());
    ola.processFrame(frame);
    for (int k = 0; k < 6; ++k) {
        const Rows out = ola.processFrame(frame);
        EXPECT_TRUE(xt::allclose(xt::view(out, 0, xt::all()), 1.0f, 0.0, 1e-4)) << k;
        EXPECT_TRUE(xt::allclose(xt::view(out, 1, xt::all()), 2.0f, 0.0, 1e-4)) << k;
    }
    // The pending part is normalised the same way where the window is not tiny.
    const Rows pending = ola.tail();
    ASSERT_EQ(pending.shape(), (std::array<std::size_t, 2>{2, kN - kHop}));
    EXPECT_TRUE(xt::allclose(xt::view(pending, 0, xt::range(0, kN / 2)), 1.0f, 0.0, 1e-4));
}

// Batches are frames in a row, and peeking at the tail changes nothing.
TEST(OverlapAddSynthesizer, TailAndBatchesDoNotDisturbTheStream) {
    OverlapAddSynthesizer plain(2, kN, kHop, blackman());
    OverlapAddSynthesizer withTail(2, kN, kHop, blackman());
    OverlapAddSynthesizer batched(2, kN, kHop, blackman());
    xt::xarray<float> batch = xt::zeros<float>({std::size_t{2}, kN, std::size_t{3}});
    Rows expected({2, 3 * kHop});
    for (unsigned k = 0; k < 3; ++k) {
        const Rows frame = randomSpectra(2, 10 + k);
        xt::view(batch, xt::all(), xt::all(), k) = frame;
        const Rows out = plain.processFrame(frame);
        xt::view(expected, xt::all(), xt::range(k * kHop, (k + 1) * kHop)) = out;
        withTail.tail();
        EXPECT_EQ(withTail.processFrame(frame), out) << k;
    }
    EXPECT_EQ(batched.process(batch), expected);

    // Empty batches always come back with two rows.
    OverlapAddSynthesizer three(3, kN, kHop, blackman());
    EXPECT_EQ(three.process(xt::xarray<float>::from_shape({3, kN, 0})).shape(), (std::vector<std::size_t>{2, 0}));
    EXPECT_THROW(three.process(xt::zeros<float>({std::size_t{3}, kN, std::size_t{1}})), std::invalid_argument);
}

}  // namespace
}  // namespace tonwerk
