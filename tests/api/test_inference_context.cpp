// InferenceContext through the shared library's public interface.
#include "test_support.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <filesystem>

namespace tonwerk {
namespace {

using ::testing::HasSubstr;

#if !defined(_WIN32)  // the Windows DLL's imports are checked by check_exports.sh
TEST(InferenceContextLibrary, RuntimeIsLoadedAtRunTimeFromNextToTheLibrary) {
    const std::string build = TONWERK_BUILD_DIR;
    std::string dynamic;
    if (FILE* pipe = popen(("readelf -d " + build + "/libtonwerk_proc_multistem.so").c_str(), "r")) {
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) dynamic.append(buffer, n);
        pclose(pipe);
    }
    ASSERT_THAT(dynamic, HasSubstr("(NEEDED)"));  // readelf ran and listed the dependencies
    EXPECT_THAT(dynamic, ::testing::Not(HasSubstr("onnxruntime")));
    EXPECT_TRUE(std::filesystem::exists(build + "/libonnxruntime_pelagrin.so"));
}
#endif

TEST(InferenceContextLibrary, LogsItsOwnStartUpProblems) {
    // No logger exists in this process until a context sets one up, so a
    // printed backend error shows that logging came first.
    const std::vector<unsigned char> garbage(64, 0x5A);
    const auto lines = test::linesWith(test::stdoutOf([&] {
        EXPECT_THROW(InferenceContext(ModelData{garbage.data(), garbage.size(), ""}), std::exception);
    }), "[INFERENCE_onnx] Failed to initialize ONNX session: ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("ERROR"));
}

TEST(InferenceContextLibrary, MovedFromContextsCanBeDestroyedAndAssigned) {
    const auto model = test::readModel("identity.onnx");
    const ModelData data{model.data(), model.size(), ""};
    InferenceContext first(data);
    InferenceContext second(std::move(first));
    InferenceContext third(data);
    third = std::move(second);  // releases third's own model
    first = std::move(third);   // into a moved-from object
    auto& self = first;
    first = std::move(self);
    EXPECT_NE(std::make_shared<InferenceContext>(std::move(first)), nullptr);
}

}  // namespace
}  // namespace tonwerk
