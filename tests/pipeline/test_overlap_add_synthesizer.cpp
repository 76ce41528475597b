#include "pipeline/overlap_add_synthesizer.h"
#include "pipeline/shift_array.h"
#include "spectral/window.h"

#include <gtest/gtest.h>

#include <xtensor/xrandom.hpp>
#include <xtensor/xview.hpp>

#include <cstring>
#include <stdexcept>
#include <tuple>

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

// The overlap-add written out as plainly as possible: linear accumulators
// moved left by shiftArray after every frame.
class ShiftingReference {
public:
    ShiftingReference(std::size_t n, std::size_t hop, const std::vector<float>& window)
        : n(n), hop(hop), window(window), fft(n, false), acc(xt::zeros<float>({std::size_t{2}, n})),
          sum(xt::zeros<float>({n})) {}

    Rows process(const Rows& frame) {
        const Rows t = fft.inverse(frame);
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t c = 0; c < 2; ++c) acc(c, i) = t(c, i) * window[i] + acc(c, i);
            sum(i) += window[i] * window[i];
        }
        const std::size_t h = std::min(hop, n);
        Rows out({2, h});
        for (std::size_t c = 0; c < 2; ++c) {
            for (std::size_t i = 0; i < h; ++i) out(c, i) = acc(c, i) / sum(i);
        }
        shiftArray(acc, hop);
        shiftArray(sum, hop);
        return out;
    }

private:
    std::size_t n;
    std::size_t hop;
    std::vector<float> window;
    PFFFTTransformer fft;
    Rows acc;
    xt::xtensor<float, 1> sum;
};

bool sameBits(const Rows& a, const Rows& b) {
    // An empty array may have no storage to compare.
    return a.shape() == b.shape() && (a.size() == 0 || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

// The ring, the settled window sums and the skipped silent frames must give
// every bit the plain shifting form gives, signs of zeros included: sound,
// silence long enough for the ring to empty, sound again; with a hop that
// divides the frame, one that does not, and one longer than the frame.
class SynthesizerExactness : public ::testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

TEST_P(SynthesizerExactness, MatchesTheShiftingFormBitForBit) {
    const auto [n, hop] = GetParam();
    const std::vector<float> window = makeWindow(Blackman, static_cast<std::int32_t>(n));
    ShiftingReference reference(n, hop, window);
    OverlapAddSynthesizer ring(2, n, hop, window);
    OverlapAddSynthesizer staged(2, n, hop, window);
    Rows silence = xt::zeros<float>({std::size_t{2}, n});
    silence(1, 3) = -0.0F;  // a model may leave negative zeros
    const std::string plan = "sss" + std::string(2 * n / std::max<std::size_t>(hop, 1) + 2, '0') + "ss0s";
    for (std::size_t k = 0; k < plan.size(); ++k) {
        xt::random::seed(static_cast<unsigned>(100 + k));
        const Rows frame = plan[k] == 's' ? Rows(xt::random::rand<float>({std::size_t{2}, n}, -1.0F, 1.0F)) : silence;
        const Rows expected = reference.process(frame);
        ASSERT_TRUE(sameBits(ring.processFrame(frame), expected)) << "frame " << k;
        std::copy(frame.begin(), frame.end(), staged.stagedFrame());
        Rows out({2, expected.shape()[1]});
        staged.processStagedFrame(plan[k] == '0', out.data(), out.shape()[1], 0, out.shape()[1]);
        ASSERT_TRUE(sameBits(out, expected)) << "staged frame " << k;
    }
    EXPECT_TRUE(sameBits(ring.tail(), staged.tail()));
}

INSTANTIATE_TEST_SUITE_P(FrameAndHop, SynthesizerExactness,
                         ::testing::Values(std::make_tuple(kN, kHop), std::make_tuple(std::size_t{64}, std::size_t{24}),
                                           std::make_tuple(std::size_t{64}, std::size_t{100})));

}  // namespace
}  // namespace tonwerk
