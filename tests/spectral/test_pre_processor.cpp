// The pre-processor through the identity model (vocals_output = model
// input), so every returned frame shows exactly what was placed in the
// spectrogram slot it came from.
#include "spectral/pre_processor.h"

#include "common/logging.h"
#include "inference/capture_stdout.h"
#include "inference/inference.h"
#include "inference/model_files.h"
#include "spectral/pffft_transformer.h"
#include "spectral/window.h"

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

std::shared_ptr<IInference> identityBackend() {
    const auto bytes = test::readModel("identity.onnx");
    auto backend = makeInferenceBackend(bytes.data(), bytes.size(), {},
                                        {"vocals_output", "drum_output", "piano_output", "acoustic_guitar_output",
                                         "electric_guitar_output", "bass_output"},
                                        "CPUExecutionProvider");
    setSelectedStems(backend, StemFlags{true, true, true, true, true, true});
    return backend;
}

PreProcessor makePreProcessor(std::shared_ptr<IInference> backend) {
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
    xt::xtensor<float, 2> frame = xt::xtensor<float, 2>::from_shape({2, kN});
    for (std::size_t c = 0; c < 2; ++c) {
        for (std::size_t i = 0; i < kN; ++i) {
            frame(c, i) = input(c, start + i) * window[i];
        }
    }
    PFFFTTransformer fft(kN, false);
    return fft.forward(frame);
}

xt::xtensor<float, 2> returnedFrame(const xt::xarray<float>& result, std::size_t stem, std::size_t index) {
    return xt::view(result, stem, xt::all(), xt::range(index * kN, (index + 1) * kN));
}

void expectSilentExceptVocals(const xt::xarray<float>& result) {
    for (std::size_t s = 1; s < 6; ++s) {
        EXPECT_EQ(xt::amax(xt::abs(xt::view(result, s)))(), 0.0F) << "stem " << s;
    }
}

TEST(PreProcessor, FramesEndAtTheInputsEndAndTheNewestIsHeldBackForTheNextCall) {
    PreProcessor pre = makePreProcessor(identityBackend());
    EXPECT_EQ(pre.maxInputLength(), 265216u);

    // Six frames; the first 300 samples fall into none of them.
    const xt::xtensor<float, 2> first = signal(kN + 5 * kHop + 300, 0.0F);
    const xt::xarray<float> a = pre.process(first, false);
    ASSERT_EQ(a.shape(), (std::vector<std::size_t>{6, 2, 5 * kN}));
    for (std::size_t j = 0; j < 5; ++j) {
        EXPECT_EQ(returnedFrame(a, 0, j), expectedFrame(first, 300 + j * kHop)) << "frame " << j;
    }
    expectSilentExceptVocals(a);
    EXPECT_EQ(pre.maxInputLength(), 263168u);

    // At eof: the frame held back last time (now shifted three slots to the
    // left), then all three new frames.
    const xt::xtensor<float, 2> second = signal(kN + 2 * kHop, 1.0F);
    const xt::xarray<float> b = pre.process(second, true);
    ASSERT_EQ(b.shape(), (std::vector<std::size_t>{6, 2, 4 * kN}));
    EXPECT_EQ(returnedFrame(b, 0, 0), expectedFrame(first, 300 + 5 * kHop));
    for (std::size_t j = 0; j < 3; ++j) {
        EXPECT_EQ(returnedFrame(b, 0, j + 1), expectedFrame(second, j * kHop)) << "frame " << j;
    }
    expectSilentExceptVocals(b);
}

TEST(PreProcessor, OneFrameFirstCallReturnsItOnlyAtEof) {
    PreProcessor held = makePreProcessor(identityBackend());
    const xt::xtensor<float, 2> input = signal(kN, 2.0F);
    EXPECT_EQ(held.process(input, false).shape(), (std::vector<std::size_t>{6, 2, 0}));

    PreProcessor flushed = makePreProcessor(identityBackend());
    const xt::xarray<float> out = flushed.process(input, true);
    ASSERT_EQ(out.shape(), (std::vector<std::size_t>{6, 2, kN}));
    const xt::xtensor<float, 2> frame = returnedFrame(out, 0, 0);
    EXPECT_EQ(frame, expectedFrame(input, 0));
    // Bin 0's imaginary slot carries the Nyquist value, which is never given to the model.
    EXPECT_EQ(frame(0, 1), 0.0F);
    EXPECT_EQ(frame(1, 1), 0.0F);
}

TEST(PreProcessor, RejectsInputThatDoesNotFitTheSpectrogram) {
    PreProcessor pre = makePreProcessor(identityBackend());
    EXPECT_THROW(pre.process(signal(kN - 1, 0.0F), false), std::invalid_argument);
    EXPECT_THROW(pre.process(signal(kN + 256 * kHop, 0.0F), false), std::invalid_argument);  // 257 frames
    EXPECT_EQ(pre.process(signal(kN + 255 * kHop, 0.0F), false).shape()[2], 255 * kN);     // all 256 slots
    // From now on one slot holds the frame held back.
    EXPECT_THROW(pre.process(signal(kN + 255 * kHop, 0.0F), true), std::invalid_argument);
    EXPECT_EQ(pre.process(signal(kN + 254 * kHop, 0.0F), true).shape()[2], 256 * kN);
}

class FailingInference : public IInference {
public:
    bool run(float*, std::vector<float*>, const std::array<std::int64_t, 4>&) override { return false; }
};

TEST(PreProcessor, FailedModelRunReturnsNothingAndKeepsTheEdgeState) {
    auto logging = log::LogSetup::trySetUp();
    PreProcessor pre = makePreProcessor(std::make_shared<FailingInference>());
    test::CaptureStdout capture;
    const xt::xarray<float> out = pre.process(signal(2 * kN, 0.0F), false);
    const auto lines = capture.linesWith("Inference failed");
    EXPECT_EQ(out.dimension(), 0u);
    EXPECT_EQ(pre.maxInputLength(), 265216u);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("ERROR"), std::string::npos);
    EXPECT_NE(lines[0].find("[PreProcessor::process@"), std::string::npos);
}

}  // namespace
}  // namespace tonwerk
