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

// gains.onnx scales its outputs by 1 to 6 in the configuration's stem order.
TEST(InferenceContextImpl, KeyedModelRunsBitIdenticallyToThePlainOne) {
    const auto bytes = test::readModel("gains.onnx");
    const std::string key("\x9c\x00\xffsecret", 9);
    auto scrambled = bytes;
    for (std::size_t i = 0; i < scrambled.size(); ++i) scrambled[i] ^= static_cast<unsigned char>(key[i % 9]);
    EXPECT_THROW(InferenceContextImpl(ModelData{scrambled.data(), scrambled.size(), ""}), std::exception);

    constexpr std::size_t kCount = 4 * 256 * 2048;
    std::vector<float> input(kCount);
    for (std::size_t i = 0; i < kCount; ++i) input[i] = static_cast<float>(i % 977) * 0.013f - 6.0f;
    std::vector<std::vector<float>> outputs[2];
    const ModelData models[2] = {{bytes.data(), bytes.size(), ""}, {scrambled.data(), scrambled.size(), key}};
    for (int m = 0; m < 2; ++m) {
        InferenceContextImpl context(models[m]);
        setSelectedStems(context.backend, StemFlags{true, true, true, true, true, true});
        outputs[m].assign(6, std::vector<float>(kCount));
        std::vector<float*> pointers;
        for (auto& output : outputs[m]) pointers.push_back(output.data());
        context.backend->run(input.data(), pointers, {1, 4, 256, 2048});
    }
    EXPECT_EQ(outputs[0], outputs[1]);
    EXPECT_EQ(outputs[0][5][1], input[1] * 6.0f);  // the sixth output is bass
}

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
