// InferenceContext through the shared library's public interface. That the
// library does not load ONNX Runtime at load time is checked by check_exports.sh.
#include "test_support.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <gmock/gmock.h>

namespace tonwerk {
namespace {

TEST(InferenceContextLibrary, LogsItsOwnStartUpProblems) {
    // No logger exists in this process until a context sets one up, so a
    // printed backend error shows that logging came first.
    const std::vector<unsigned char> garbage(64, 0x5A);
    const auto lines = test::linesWith(test::stdoutOf([&] {
        EXPECT_THROW(InferenceContext(ModelData{garbage.data(), garbage.size(), ""}), std::exception);
    }), "[INFERENCE_onnx] Failed to initialize ONNX session: ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], ::testing::HasSubstr("ERROR"));
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
