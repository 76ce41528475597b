// InferenceContext through the shared library's public interface.
#include "tonwerk/tonwerk_proc_multistem.h"

#include "inference/capture_stdout.h"
#include "inference/model_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

namespace tonwerk {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

std::string commandOutput(const std::string& command) {
    std::string text;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
        pclose(pipe);
    }
    return text;
}

ModelData modelData(const std::vector<unsigned char>& bytes, std::string key = "") {
    return {bytes.data(), bytes.size(), std::move(key)};
}

TEST(InferenceContextLibrary, RuntimeIsLoadedAtRunTimeFromNextToTheLibrary) {
    const std::string build = TONWERK_BUILD_DIR;
    const std::string dynamic = commandOutput("readelf -d " + build + "/libtonwerk_proc_multistem.so");
    ASSERT_THAT(dynamic, HasSubstr("(NEEDED)"));  // readelf ran and listed the dependencies
    EXPECT_THAT(dynamic, Not(HasSubstr("onnxruntime")));
    EXPECT_TRUE(std::filesystem::exists(build + "/libonnxruntime_pelagrin.so"));
}

TEST(InferenceContextLibrary, LogsItsOwnStartUpProblems) {
    // No logger exists in this process until a context sets one up, so a
    // printed backend error shows that logging came first.
    const std::vector<unsigned char> garbage(64, 0x5A);
    test::CaptureStdout out;
    EXPECT_THROW(InferenceContext{modelData(garbage)}, std::exception);
    const auto lines = out.linesWith("[INFERENCE_onnx] Failed to initialize ONNX session: ");
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr("ERROR"));
}

TEST(InferenceContextLibrary, KeyedModelLoadsOnlyWithItsKey) {
    const std::string key("k\xff\x80\x01 key", 8);
    auto scrambled = test::readModel("identity.onnx");
    for (std::size_t i = 0; i < scrambled.size(); ++i) scrambled[i] ^= static_cast<unsigned char>(key[i % 8]);
    EXPECT_NO_THROW(InferenceContext{modelData(scrambled, key)});
    EXPECT_THROW(InferenceContext{modelData(scrambled)}, std::exception);
}

TEST(InferenceContextLibrary, MovedFromContextsCanBeDestroyedAndAssigned) {
    const auto model = test::readModel("identity.onnx");
    InferenceContext first(modelData(model));
    InferenceContext second(std::move(first));
    InferenceContext third(modelData(model));
    third = std::move(second);  // releases third's own model
    first = std::move(third);   // into a moved-from object
    auto& self = first;
    first = std::move(self);
    EXPECT_NE(std::make_shared<InferenceContext>(std::move(first)), nullptr);
}

}  // namespace
}  // namespace tonwerk
