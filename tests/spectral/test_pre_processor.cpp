// The pre-processor through the identity model (vocals_output = model
// input), so every returned frame shows exactly what was placed in the
// spectrogram slot it came from.
#include "spectral/pre_processor.h"

#include "common/logging.h"
#include "spectral/pffft_transformer.h"
#include "spectral/window.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <xtensor/xview.hpp>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk {
namespace {

constexpr std::size_t kN = 4096;
constexpr std::size_t kHop = 1024;

PreProcessor makePreProcessor(std::shared_ptr<IInference> backend = test::identityBackend()) {
    return PreProcessor(2, kN, kHop, makeWindow(Blackman, kN), std::move(backend), 256, true, 6);
}

// Two channels of distinct, non-periodic values.
xt::xtensor<float, 2> signal(std::size_t length, float seed) {
    xt::xtensor<float, 2> s = xt::xtensor<float, 2>::from_shape({2, length});
    for (std::size_t i = 0; i < length; ++i) {
        s(0, i) = std::sin(seed + 0.013F * static_cast<float>(i)) + 0.1F * std::sin(0.7F * static_cast<float>(i));
        s(1, i) = std::cos(seed + 0.021F * static_cast<float>(i));
    }
    return s;
}

// The packed spectrum of input[:, start, start + N) under the window.
xt::xtensor<float, 2> expectedFrame(const xt::xtensor<float, 2>& input, std::size_t start) {
    const std::vector<float> window = makeWindow(Blackman, kN);
    xt::xtensor<float, 2> frame = xt::view(input, xt::all(), xt::range(start, start + kN));
    for (std::size_t i = 0; i < kN; ++i) xt::view(frame, xt::all(), i) *= window[i];
    return PFFFTTransformer(kN, false).forward(frame);
}

// Frame placement in longer streams shows in the whole-stream tests (tests/api).
TEST(PreProcessor, OneFrameFirstCallReturnsItOnlyAtEof) {
    PreProcessor held = makePreProcessor();
    EXPECT_EQ(held.maxInputLength(), 265216u);
    const xt::xtensor<float, 2> input = signal(kN, 2.0F);
    EXPECT_EQ(held.process(input, false).shape(), (std::vector<std::size_t>{6, 2, 0}));

    PreProcessor flushed = makePreProcessor();
    const xt::xarray<float> out = flushed.process(input, true);
    ASSERT_EQ(out.shape(), (std::vector<std::size_t>{6, 2, kN}));
    EXPECT_EQ(xt::amax(xt::abs(xt::view(out, xt::range(1, 6))))(), 0.0F);
    const xt::xtensor<float, 2> frame = xt::view(out, 0);
    EXPECT_EQ(frame, expectedFrame(input, 0));
    // Bin 0's imaginary slot carries the Nyquist value, which is never given to the model.
    EXPECT_EQ(frame(0, 1), 0.0F);
    EXPECT_EQ(frame(1, 1), 0.0F);
}

TEST(PreProcessor, RejectsInputThatDoesNotFitTheSpectrogram) {
    PreProcessor pre = makePreProcessor();
    EXPECT_THROW(pre.process(signal(kN - 1, 0.0F), false), std::invalid_argument);
    EXPECT_THROW(pre.process(signal(kN + 256 * kHop, 0.0F), false), std::invalid_argument);  // 257 frames
    EXPECT_EQ(pre.process(signal(kN + 255 * kHop, 0.0F), false).shape()[2], 255 * kN);     // all 256 slots
    // From now on one slot holds the frame held back.
    EXPECT_THROW(pre.process(signal(kN + 255 * kHop, 0.0F), true), std::invalid_argument);
    EXPECT_EQ(pre.process(signal(kN + 254 * kHop, 0.0F), true).shape()[2], 256 * kN);
}

TEST(PreProcessor, FailedModelRunReturnsNothingAndKeepsTheEdgeState) {
    struct FailingInference : IInference {
        bool run(float*, std::vector<float*>, const std::array<std::int64_t, 4>&) override { return false; }
    };
    auto logging = log::LogSetup::trySetUp();
    PreProcessor pre = makePreProcessor(std::make_shared<FailingInference>());
    xt::xarray<float> out;
    const auto lines = test::linesWith(test::stdoutOf([&] { out = pre.process(signal(2 * kN, 0.0F), false); }),
                                       "Inference failed");
    EXPECT_EQ(out.dimension(), 0u);
    EXPECT_EQ(pre.maxInputLength(), 265216u);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("ERROR"), std::string::npos);
    EXPECT_NE(lines[0].find("[PreProcessor::process@"), std::string::npos);
}

}  // namespace
}  // namespace tonwerk
