// The implementation behind InferenceContext: unscrambling and logging ownership.
#include "api/inference_context_impl.h"
#include "api/model_scrambling.h"

#include "test_support.h"

#include <cstring>

namespace tonwerk {
namespace {

TEST(UnscrambledModel, XorsWithTheKeyRepeatedAndWipesItsCopy) {
    const unsigned char data[] = {0x00, 0xFF, 0x0F, 0xA5, 0x3C};
    UnscrambledModel plain(data, sizeof data, "\x80\x01");
    ASSERT_EQ(plain.size(), 5u);
    EXPECT_EQ(std::memcmp(plain.data(), "\x80\xFE\x8F\xA4\xBC", 5), 0);
    EXPECT_EQ(UnscrambledModel(data, 2, "\x01\x02\x03").data()[1], 0xFD);  // longer key: only its head is used
    plain.wipe();
    EXPECT_EQ(std::memcmp(plain.data(), "\0\0\0\0\0", 5), 0);
    EXPECT_THROW(UnscrambledModel(data, sizeof data, ""), std::invalid_argument);
}

// A keyed model through the whole library is in the tools' tests (tonwerk-model
// scramble, then tonwerk-separate --key).
TEST(InferenceContextImpl, OnlyTheContextThatSetUpLoggingTearsItDown) {
    ASSERT_FALSE(log::enabled(log::Severity::error)) << "another logger is active";
    const auto bytes = test::readModel("identity.onnx");
    auto owner = std::make_unique<InferenceContextImpl>(ModelData{bytes.data(), bytes.size(), ""});
    EXPECT_NE(owner->logging, nullptr);
    EXPECT_EQ(InferenceContextImpl(ModelData{bytes.data(), bytes.size(), ""}).logging, nullptr);
    EXPECT_TRUE(log::enabled(log::Severity::error));
    owner.reset();
    EXPECT_FALSE(log::enabled(log::Severity::error));

    const std::vector<unsigned char> garbage(64, 0x5A);
    EXPECT_THROW(InferenceContextImpl(ModelData{garbage.data(), garbage.size(), ""}), std::exception);
    EXPECT_FALSE(log::enabled(log::Severity::error)) << "a failed context left its logger behind";
}

}  // namespace
}  // namespace tonwerk
