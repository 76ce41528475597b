// The implementation behind InferenceContext: unscrambling and logging ownership.
#include "api/inference_context_impl.h"
#include "api/model_scrambling.h"

#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

namespace tonwerk {
namespace {

constexpr std::size_t kCount = 4 * 256 * 2048;

std::vector<std::vector<float>> runAllStems(InferenceContextImpl& context, std::vector<float>& input) {
    setSelectedStems(context.backend, StemFlags{true, true, true, true, true, true});
    std::vector<std::vector<float>> outputs(6, std::vector<float>(kCount));
    std::vector<float*> pointers;
    for (auto& output : outputs) pointers.push_back(output.data());
    context.backend->run(input.data(), pointers, {1, 4, 256, 2048});
    return outputs;
}

TEST(UnscrambledModel, XorsWithTheKeyRepeatedAndWipesItsCopy) {
    const unsigned char data[] = {0x00, 0xFF, 0x0F, 0xA5, 0x3C};
    UnscrambledModel plain(data, sizeof data, "\x80\x01");
    const unsigned char expected[] = {0x80, 0xFE, 0x8F, 0xA4, 0xBC};
    ASSERT_EQ(plain.size(), 5u);
    EXPECT_EQ(std::memcmp(plain.data(), expected, 5), 0);
    EXPECT_EQ(UnscrambledModel(data, 2, "\x01\x02\x03").data()[1], 0xFD);  // longer key: only its head is used

    plain.wipe();
    const unsigned char zeros[5] = {};
    EXPECT_EQ(std::memcmp(plain.data(), zeros, 5), 0);
    EXPECT_THROW(UnscrambledModel(data, sizeof data, ""), std::invalid_argument);
}

TEST(InferenceContextImpl, KeyedModelRunsBitIdenticallyToThePlainOne) {
    const auto bytes = test::readModel("gains.onnx");
    const std::string key("\x9c\x00\xffsecret", 9);
    auto scrambled = bytes;
    for (std::size_t i = 0; i < scrambled.size(); ++i) scrambled[i] ^= static_cast<unsigned char>(key[i % 9]);

    InferenceContextImpl plain(ModelData{bytes.data(), bytes.size(), ""});
    InferenceContextImpl keyed(ModelData{scrambled.data(), scrambled.size(), key});
    std::vector<float> input(kCount);
    for (std::size_t i = 0; i < kCount; ++i) input[i] = static_cast<float>(i % 977) * 0.013f - 6.0f;
    const auto expected = runAllStems(plain, input);
    const auto actual = runAllStems(keyed, input);
    EXPECT_THROW(InferenceContextImpl(ModelData{scrambled.data(), scrambled.size(), ""}), std::exception);
    for (std::size_t s = 0; s < 6; ++s) {
        EXPECT_EQ(std::memcmp(actual[s].data(), expected[s].data(), kCount * sizeof(float)), 0) << "output " << s;
    }
    // Outputs follow the configuration's stem order: the sixth is bass, which gains.onnx scales by 6.
    EXPECT_EQ(expected[5][1], input[1] * 6.0f);
}

TEST(InferenceContextImpl, OnlyTheContextThatSetUpLoggingTearsItDown) {
    ASSERT_FALSE(log::enabled(log::Severity::error)) << "another logger is active";
    const auto bytes = test::readModel("identity.onnx");
    auto owner = std::make_unique<InferenceContextImpl>(ModelData{bytes.data(), bytes.size(), ""});
    EXPECT_NE(owner->logging, nullptr);
    {
        InferenceContextImpl guest(ModelData{bytes.data(), bytes.size(), ""});
        EXPECT_EQ(guest.logging, nullptr);
    }
    EXPECT_TRUE(log::enabled(log::Severity::error));
    owner.reset();
    EXPECT_FALSE(log::enabled(log::Severity::error));

    const std::vector<unsigned char> garbage(64, 0x5A);
    EXPECT_THROW(InferenceContextImpl(ModelData{garbage.data(), garbage.size(), ""}), std::exception);
    EXPECT_FALSE(log::enabled(log::Severity::error)) << "a failed context left its logger behind";
}

}  // namespace
}  // namespace tonwerk
