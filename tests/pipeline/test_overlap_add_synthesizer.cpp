// The synthesizer against the overlap-add written out as plainly as possible:
// linear accumulators moved left by shiftArray after every frame. The ring,
// the settled window sums, the skipped silent frames and the batch form must
// give every bit the plain form gives, signs of zeros included (no epsilon
// may enter the division, even where the window is ~1e-8).
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

using Rows = xt::xtensor<float, 2>;

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
        Rows out({2, std::min(hop, n)});
        for (std::size_t c = 0; c < 2; ++c) {
            for (std::size_t i = 0; i < out.shape()[1]; ++i) out(c, i) = acc(c, i) / sum(i);
        }
        shiftArray(acc, hop);
        shiftArray(sum, hop);
        return out;
    }

private:
    std::size_t n, hop;
    std::vector<float> window;
    PFFFTTransformer fft;
    Rows acc;
    xt::xtensor<float, 1> sum;
};

bool sameBits(const xt::xarray<float>& a, const xt::xarray<float>& b) {
    // An empty array may have no storage to compare.
    return a.shape() == b.shape() && (a.size() == 0 || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

// Sound, silence long enough for the ring to empty, sound again; with a hop
// that divides the frame, one that does not, and one longer than the frame.
class SynthesizerExactness : public ::testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

TEST_P(SynthesizerExactness, MatchesTheShiftingFormBitForBit) {
    const auto [n, hop] = GetParam();
    const std::vector<float> window = makeWindow(Blackman, static_cast<std::int32_t>(n));
    ShiftingReference reference(n, hop, window);
    OverlapAddSynthesizer ring(2, n, hop, window), staged(2, n, hop, window), batched(2, n, hop, window);
    Rows silence = xt::zeros<float>({std::size_t{2}, n});
    silence(1, 3) = -0.0F;  // a model may leave negative zeros
    const std::string plan = "sss" + std::string(2 * n / std::max<std::size_t>(hop, 1) + 2, '0') + "ss0s";
    xt::xarray<float> batch = xt::zeros<float>({std::size_t{2}, n, plan.size()});
    xt::xarray<float> expected = xt::zeros<float>({std::size_t{2}, plan.size() * std::min(hop, n)});
    for (std::size_t k = 0; k < plan.size(); ++k) {
        xt::random::seed(static_cast<unsigned>(100 + k));
        const Rows frame = plan[k] == 's' ? Rows(xt::random::rand<float>({std::size_t{2}, n}, -1.0F, 1.0F)) : silence;
        const Rows want = reference.process(frame);
        ASSERT_TRUE(sameBits(ring.processFrame(frame), want)) << "frame " << k;
        std::copy(frame.begin(), frame.end(), staged.stagedFrame());
        Rows out({2, want.shape()[1]});
        staged.processStagedFrame(plan[k] == '0', out.data(), out.shape()[1], 0, out.shape()[1]);
        ASSERT_TRUE(sameBits(out, want)) << "staged frame " << k;
        xt::view(batch, xt::all(), xt::all(), k) = frame;
        xt::view(expected, xt::all(), xt::range(k * want.shape()[1], (k + 1) * want.shape()[1])) = want;
    }
    EXPECT_TRUE(sameBits(ring.tail(), staged.tail()));
    EXPECT_TRUE(sameBits(batched.process(batch), expected));
    // Empty batches come back with two rows; a frame of the wrong size is refused.
    EXPECT_EQ(batched.process(xt::xarray<float>::from_shape({2, n, 0})).shape(), (std::vector<std::size_t>{2, 0}));
    EXPECT_THROW(batched.process(xt::zeros<float>({std::size_t{3}, n, std::size_t{1}})), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(FrameAndHop, SynthesizerExactness,
                         ::testing::Values(std::make_tuple(std::size_t{4096}, std::size_t{1024}),
                                           std::make_tuple(std::size_t{64}, std::size_t{24}),
                                           std::make_tuple(std::size_t{64}, std::size_t{100})));

// Rows shift independently: nothing of a row's neighbour may leak into its end.
TEST(ShiftArray, MovesEveryRowLeftAndZeroFills) {
    xt::xtensor<float, 1> a = {1, 2, 3, 4, 5};
    shiftArray(a, 0);
    EXPECT_EQ(a, (xt::xtensor<float, 1>{1, 2, 3, 4, 5}));
    shiftArray(a, 2);
    EXPECT_EQ(a, (xt::xtensor<float, 1>{3, 4, 5, 0, 0}));
    shiftArray(a, 9);
    EXPECT_EQ(a, (xt::xtensor<float, 1>{0, 0, 0, 0, 0}));
    xt::xtensor<float, 2> b = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}};
    shiftArray(b, 1);
    EXPECT_EQ(b, (xt::xtensor<float, 2>{{2, 3, 4, 0}, {6, 7, 8, 0}, {10, 11, 12, 0}}));
    shiftArray(b, 3);
    EXPECT_EQ(b, (xt::xtensor<float, 2>{{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}}));
}

}  // namespace
}  // namespace tonwerk
