// The backend over the real runtime, with the generated test models.
#include "inference/inference.h"

#include "common/logging.h"
#include "test_support.h"

#include <onnxruntime_cxx_api.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <stdexcept>

namespace tonwerk {
namespace {

using ::testing::HasSubstr;

constexpr std::array<std::int64_t, 4> kShape = {1, 4, 256, 2048};
constexpr std::size_t kCount = 4 * 256 * 2048;
constexpr float kUntouched = -7.25f;

const std::vector<std::string> kOutputOrder = {"vocals_output",          "drum_output",           "piano_output",
                                               "acoustic_guitar_output", "electric_guitar_output", "bass_output"};

class OnnxBackendTest : public ::testing::Test {
protected:
    OnnxBackendTest() : input(kCount) {
        std::uint32_t state = 12345;  // distinct values in [-1, 1)
        for (float& value : input) {
            state = state * 1664525u + 1013904223u;
            value = static_cast<float>(state >> 8) / static_cast<float>(1u << 23) - 1.0f;
        }
    }
    void SetUp() override { ASSERT_NE(logging_, nullptr) << "another logger is active"; }

    static std::shared_ptr<IInference> load(const std::string& model, const std::vector<std::string>& names) {
        const auto bytes = test::readModel(model);
        return makeInferenceBackend(bytes.data(), bytes.size(), {}, names, "");
    }

    // One run into buffers prefilled with kUntouched; what it logs goes to `log`.
    std::vector<std::vector<float>> run(IInference& backend) {
        std::vector<std::vector<float>> outputs(6, std::vector<float>(kCount, kUntouched));
        std::vector<float*> pointers;
        for (auto& output : outputs) pointers.push_back(output.data());
        log = test::stdoutOf([&] { EXPECT_TRUE(backend.run(input.data(), pointers, kShape)); });
        return outputs;
    }

    // Output `actual` is the input times `gain`.
    void expectScaled(const std::vector<float>& actual, float gain, const std::string& what) const {
        for (std::size_t i = 0; i < kCount; ++i) ASSERT_EQ(actual[i], input[i] * gain) << what << ", element " << i;
    }

    std::vector<float> input;
    std::string log;

private:
    std::unique_ptr<log::LogSetup> logging_ = log::LogSetup::trySetUp();
};

// gains.onnx scales its outputs by 1 to 6 in the configuration's stem order;
// flag_gated.onnx zeroes a stem itself when its flag input is false, so a
// selected stem only comes through if its own flag reached the network.
TEST_F(OnnxBackendTest, OutputsFollowTheirNamesAndTheSelectionReachesTheNetwork) {
    const std::vector<std::string> names = {"bass_output",  "electric_guitar_output", "vocals_output",
                                            "piano_output", "acoustic_guitar_output", "drum_output"};
    auto gains = load("gains.onnx", names);
    for (const auto& output : run(*gains)) expectScaled(output, 0.0f, "nothing selected yet");
    setSelectedStems(gains, StemFlags{true, true, true, false, false, true});  // flag order: bass third
    auto outputs = run(*gains);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto stem = std::find(kOutputOrder.begin(), kOutputOrder.end(), names[i]) - kOutputOrder.begin();
        const bool selected = names[i] != "piano_output" && names[i] != "acoustic_guitar_output";
        expectScaled(outputs[i], selected ? static_cast<float>(stem + 1) : 0.0f, names[i]);
    }

    auto gated = load("flag_gated.onnx", kOutputOrder);
    for (const auto& [flags, on] : {std::make_pair(StemFlags{false, false, true, true, false, false}, "bass piano"),
                                    std::make_pair(StemFlags{false, false, false, false, true, false}, "acoustic")}) {
        setSelectedStems(gated, flags);
        outputs = run(*gated);
        for (std::size_t i = 0; i < 6; ++i) {
            const std::string stem = kOutputOrder[i].substr(0, kOutputOrder[i].find('_'));
            expectScaled(outputs[i], std::string(on).find(stem) != std::string::npos ? 1.0f : 0.0f, kOutputOrder[i]);
        }
    }

    auto misnamed = load("broken_misnamed_output.onnx", {});  // the model's names: the last is "bass_out"
    setSelectedStems(misnamed, StemFlags{true, true, true, true, true, true});
    outputs = run(*misnamed);
    EXPECT_EQ(log, "");
    expectScaled(outputs[0], 1.0f, "vocals");
    expectScaled(outputs[5], 0.0f, "an output outside the stem table");
}

// A failing run is logged and still returns, with the unselected stems zeroed
// and the rest untouched; outputs that cannot be bound make run() throw.
TEST_F(OnnxBackendTest, FailingRunsAreLoggedAndUnbindableOutputsThrow) {
    for (const char* model : {"broken_runtime_error.onnx", "broken_missing_flag.onnx", "broken_misnamed_output.onnx"}) {
        auto backend = load(model, kOutputOrder);
        setSelectedStems(backend, StemFlags{true, false, true, true, true, true});  // all but drum
        const auto outputs = run(*backend);
        const auto lines = test::linesWith(log, "[INFERENCE_onnx]");
        ASSERT_EQ(lines.size(), 1u) << model;
        EXPECT_THAT(lines[0], HasSubstr(" ERROR ["));
        EXPECT_THAT(lines[0], HasSubstr("] [INFERENCE_onnx] Exception during inference: "));
        for (std::size_t i = 0; i < 6; ++i) {
            const float expected = i == 1 ? 0.0f : kUntouched;
            EXPECT_EQ(std::count(outputs[i].begin(), outputs[i].end(), expected), std::ptrdiff_t(kCount)) << model << i;
        }
    }
    for (const char* model : {"broken_dynamic_output.onnx", "broken_oversized_output.onnx"}) {
        auto backend = load(model, kOutputOrder);
        std::vector<float> buffer(kCount);
        EXPECT_THROW(backend->run(input.data(), std::vector<float*>(6, buffer.data()), kShape), Ort::Exception);
        EXPECT_THROW(backend->run(input.data(), {buffer.data()}, kShape), std::invalid_argument) << model;
    }
}

// Loading failures are logged by the provider walk (test_provider_walk).
TEST(OnnxBackend, StemsCanOnlyBeSelectedOnTheOnnxBackend) {
    struct Other : IInference {
        bool run(float*, std::vector<float*>, const std::array<std::int64_t, 4>&) override { return true; }
    };
    std::shared_ptr<IInference> other = std::make_shared<Other>();
    EXPECT_THROW(setSelectedStems(other, StemFlags{}), std::invalid_argument) << "stems need the ONNX backend";
}

}  // namespace
}  // namespace tonwerk
