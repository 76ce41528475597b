// The backend over the real runtime, with the generated test models.
#include "inference/inference.h"

#include "common/logging.h"
#include "test_support.h"

#include <onnxruntime_cxx_api.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <stdexcept>

namespace tonwerk {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::array<std::int64_t, 4> kShape = {1, 4, 256, 2048};
constexpr std::size_t kCount = 4 * 256 * 2048;
constexpr float kUntouched = -7.25f;

const std::vector<std::string> kOutputOrder = {"vocals_output",          "drum_output",           "piano_output",
                                               "acoustic_guitar_output", "electric_guitar_output", "bass_output"};
const StemFlags kAllStems{true, true, true, true, true, true};

// Element i of `actual` must be exactly expected(i); reports the first that is not.
template <typename Expected>
::testing::AssertionResult holds(const std::vector<float>& actual, Expected expected) {
    for (std::size_t i = 0; i < kCount; ++i) {
        if (actual[i] != expected(i)) {
            return ::testing::AssertionFailure() << "element " << i << " is " << actual[i] << ", not " << expected(i);
        }
    }
    return ::testing::AssertionSuccess();
}

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

    static std::shared_ptr<IInference> load(const std::string& model,
                                            const std::vector<std::string>& names = kOutputOrder) {
        const auto bytes = test::readModel(model);
        return makeInferenceBackend(bytes.data(), bytes.size(), {}, names, "");
    }

    // One run into fresh buffers prefilled with kUntouched; what it logs goes to `log`.
    std::vector<std::vector<float>> run(IInference& backend) {
        std::vector<std::vector<float>> outputs(6, std::vector<float>(kCount, kUntouched));
        std::vector<float*> pointers;
        for (auto& output : outputs) pointers.push_back(output.data());
        log = test::stdoutOf([&] { EXPECT_TRUE(backend.run(input.data(), pointers, kShape)); });
        return outputs;
    }

    auto scaled(float gain) const {
        return [this, gain](std::size_t i) { return input[i] * gain; };
    }

    std::vector<float> input;
    std::string log;

private:
    std::unique_ptr<log::LogSetup> logging_ = log::LogSetup::trySetUp();
};

TEST_F(OnnxBackendTest, OutputsAreMatchedToStemsByNameAndUnselectedOnesZeroed) {
    // gains.onnx scales its outputs by 1 to 6 in the configuration's stem order.
    const auto gain = [](const std::string& name) {
        return static_cast<float>(std::find(kOutputOrder.begin(), kOutputOrder.end(), name) - kOutputOrder.begin() + 1);
    };
    const std::vector<std::string> names = {"bass_output",  "electric_guitar_output", "vocals_output",
                                            "piano_output", "acoustic_guitar_output", "drum_output"};
    auto backend = load("gains.onnx", names);
    for (const auto& output : run(*backend)) EXPECT_TRUE(holds(output, scaled(0.0f)));  // nothing selected yet

    setSelectedStems(backend, StemFlags{true, true, true, false, false, true});  // flag order: bass third
    const auto outputs = run(*backend);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const bool selected = names[i] != "piano_output" && names[i] != "acoustic_guitar_output";
        EXPECT_TRUE(holds(outputs[i], scaled(selected ? gain(names[i]) : 0.0f))) << names[i];
    }
}

TEST_F(OnnxBackendTest, TheNetworkReadsTheSelectionOfEachRun) {
    // flag_gated.onnx zeroes a stem itself when its flag input is false, so a
    // selected stem only comes through if its own flag reached the network.
    auto backend = load("flag_gated.onnx");
    const std::vector<std::pair<StemFlags, std::set<std::string>>> selections = {
        {StemFlags{false, false, true, true, false, false}, {"bass_output", "piano_output"}},
        {StemFlags{false, false, false, false, true, false}, {"acoustic_guitar_output"}}};
    for (const auto& [flags, on] : selections) {
        setSelectedStems(backend, flags);
        const auto outputs = run(*backend);
        for (std::size_t i = 0; i < 6; ++i) {
            EXPECT_TRUE(holds(outputs[i], scaled(on.count(kOutputOrder[i]) ? 1.0f : 0.0f))) << kOutputOrder[i];
        }
    }
}

TEST_F(OnnxBackendTest, OutputOutsideTheStemTableIsAlwaysZeroed) {
    auto backend = load("broken_misnamed_output.onnx", {});  // the model's names: the last is "bass_out"
    setSelectedStems(backend, kAllStems);
    const auto outputs = run(*backend);
    EXPECT_THAT(log, IsEmpty());
    EXPECT_TRUE(holds(outputs[0], scaled(1.0f)));
    EXPECT_TRUE(holds(outputs[5], scaled(0.0f)));
}

class FailingRunTest : public OnnxBackendTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(FailingRunTest, IsLoggedAndStillReturnsWithUnselectedStemsZeroed) {
    auto backend = load(GetParam());
    setSelectedStems(backend, StemFlags{true, false, true, true, true, true});  // all but drum
    const auto outputs = run(*backend);
    const auto lines = test::linesWith(log, "[INFERENCE_onnx]");
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr("ERROR"));
    EXPECT_THAT(lines[0], HasSubstr("] [INFERENCE_onnx] Exception during inference: "));
    for (std::size_t i = 0; i < 6; ++i) {
        const float expected = kOutputOrder[i] == "drum_output" ? 0.0f : kUntouched;
        EXPECT_TRUE(holds(outputs[i], [=](std::size_t) { return expected; })) << kOutputOrder[i];
    }
}

INSTANTIATE_TEST_SUITE_P(Models, FailingRunTest,
                         ::testing::Values("broken_runtime_error.onnx", "broken_missing_flag.onnx",
                                           "broken_misnamed_output.onnx"));

TEST_F(OnnxBackendTest, OutputsThatCannotBeBoundMakeRunThrow) {
    for (const char* model : {"broken_dynamic_output.onnx", "broken_oversized_output.onnx"}) {
        auto backend = load(model);
        std::vector<float> buffer(kCount);
        EXPECT_THROW(backend->run(input.data(), std::vector<float*>(6, buffer.data()), kShape), Ort::Exception)
            << model;
        EXPECT_THROW(backend->run(input.data(), {buffer.data()}, kShape), std::invalid_argument) << model;
    }
}

TEST_F(OnnxBackendTest, UnloadableModelIsLoggedAndThrown) {
    const std::string garbage = "this is not an ONNX model";
    const auto lines = test::linesWith(test::stdoutOf([&] {
        EXPECT_THROW(makeInferenceBackend(garbage.data(), garbage.size(), {}, kOutputOrder, "CPUExecutionProvider"),
                     Ort::Exception);
    }), "[INFERENCE_onnx]");
    ASSERT_THAT(lines, SizeIs(1));  // preferring the CPU skips every provider attempt
    EXPECT_THAT(lines[0], HasSubstr("ERROR"));
    EXPECT_THAT(lines[0], HasSubstr("] [INFERENCE_onnx] Failed to initialize ONNX session: "));
}

TEST(SelectedStems, NeedTheOnnxBackend) {
    struct Other : IInference {
        bool run(float*, std::vector<float*>, const std::array<std::int64_t, 4>&) override { return true; }
    };
    std::shared_ptr<IInference> other = std::make_shared<Other>();
    EXPECT_THROW(setSelectedStems(other, kAllStems), std::invalid_argument);
}

}  // namespace
}  // namespace tonwerk
