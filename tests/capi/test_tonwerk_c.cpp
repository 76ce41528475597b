// The C interface over the C++ one it wraps: a stream through the identity
// model, and every bad argument turned into a status and a message without
// losing the stream. (The stem bits are checked through the Python package's
// stem names.)
#include "identity_stream_check.h"
#include "test_support.h"
#include "tonwerk/tonwerk_c.h"

#include <string>
#include <thread>

namespace tonwerk::test {
namespace {

struct Handles {
    tw_context* context = nullptr;
    tw_processor* proc = nullptr;
    ~Handles() {
        tw_processor_destroy(proc);
        tw_context_release(context);
    }
};

void expectError(tw_status status, tw_status expected, const std::string& message) {
    EXPECT_EQ(status, expected) << message;
    EXPECT_EQ(tw_last_error(), message);
}

TEST(CInterface, BadHandlesAndArgumentsGiveAStatusAndAMessage) {
    const auto bytes = readModel("identity.onnx");
    tw_context* context = reinterpret_cast<tw_context*>(&context);  // must be cleared on failure
    expectError(tw_context_create(nullptr, 10, nullptr, 0, &context), TW_ERROR_INVALID_ARGUMENT,
                "tw_context_create: bytes is NULL");
    EXPECT_EQ(context, nullptr);
    expectError(tw_context_create(bytes.data(), bytes.size(), nullptr, 3, &context), TW_ERROR_INVALID_ARGUMENT,
                "tw_context_create: key is NULL");
    expectError(tw_context_create(bytes.data(), bytes.size(), nullptr, 0, nullptr), TW_ERROR_INVALID_ARGUMENT,
                "tw_context_create: context is NULL");
    const char garbage[] = "not a model";
    EXPECT_EQ(tw_context_create(garbage, sizeof garbage, nullptr, 0, &context), TW_ERROR_RUNTIME);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(std::string(tw_last_error()).rfind("tw_context_create: ", 0), 0U) << tw_last_error();

    ASSERT_EQ(tw_context_create(bytes.data(), bytes.size(), nullptr, 0, &context), TW_OK) << tw_last_error();
    Handles h{context};
    tw_processor* proc = nullptr;
    expectError(tw_processor_create(nullptr, TW_STEMS_ALL, &proc), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_create: context is NULL");
    expectError(tw_processor_create(h.context, 0x40, &proc), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_create: stem_mask 64 has bits outside TW_STEMS_ALL (63)");
    EXPECT_EQ(proc, nullptr);
    std::size_t frames = 0;
    expectError(tw_processor_latency(nullptr, &frames), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_latency: processor is NULL");
}

// Two model runs and a flush in blocks that are not whole hops, stems chosen
// by mask, the context handle released before the stream starts; the refused
// calls in between leave the stream as it was.
TEST(CInterface, StreamsWholeThroughRefusedCalls) {
    const auto bytes = readModel("identity.onnx");
    Handles h;
    ASSERT_EQ(tw_context_create(bytes.data(), bytes.size(), nullptr, 0, &h.context), TW_OK) << tw_last_error();
    ASSERT_EQ(tw_processor_create(h.context, 0x2D, &h.proc), TW_OK) << tw_last_error();
    tw_context_release(h.context);
    h.context = nullptr;
    std::size_t latency = 0, maxInput = 0;
    ASSERT_EQ(tw_processor_latency(h.proc, &latency), TW_OK);
    EXPECT_EQ(latency, 257024U);
    expectError(tw_processor_max_input(h.proc, nullptr), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_max_input: frames is NULL");

    IdentityStreamCheck stream(nullptr, 0x2D, true);
    const auto throughC = [&h](const std::vector<float>& block, bool eof) {
        tw_output out;
        EXPECT_EQ(tw_processor_process(h.proc, block.data(), block.size() / 2, eof, &out), TW_OK) << tw_last_error();
        std::vector<std::vector<float>> stems;
        for (const float* stem : out.stems) {
            if (out.frames > 0) stems.emplace_back(stem, stem + 2 * out.frames);
        }
        return stems;
    };
    const std::vector<float> some(2 * 600000, 0.5F);
    for (std::size_t at = 0; at < 300000; at += 5000) {
        ASSERT_EQ(tw_processor_max_input(h.proc, &maxInput), TW_OK);
        EXPECT_EQ(maxInput, at < 257024 ? 257024U : 254976U);
        stream.send(5000, at + 5000 == 300000, throughC);
        if (at != 10000) continue;
        tw_output out;
        out.frames = 99;
        expectError(tw_processor_process(h.proc, nullptr, 5, 0, &out), TW_ERROR_INVALID_ARGUMENT,
                    "tw_processor_process: input is NULL");
        EXPECT_EQ(out.frames, 0U);
        expectError(tw_processor_process(h.proc, some.data(), SIZE_MAX / 4, 0, &out), TW_ERROR_INVALID_ARGUMENT,
                    "tw_processor_process: frames " + std::to_string(SIZE_MAX / 4) + " is beyond any buffer");
        expectError(tw_processor_process(h.proc, some.data(), 1, 0, nullptr), TW_ERROR_INVALID_ARGUMENT,
                    "tw_processor_process: out is NULL");
        expectError(tw_processor_process(h.proc, some.data(), 600000, 1, &out), TW_ERROR_BUFFER_OVERFLOW,
                    "tw_processor_process: Buffer overflow: cannot accept chunk of size 600000");
    }
}

TEST(CInterface, LastErrorBelongsToTheCallingThread) {
    tw_output out;
    ASSERT_EQ(tw_processor_process(nullptr, nullptr, 0, 0, &out), TW_ERROR_INVALID_ARGUMENT);
    std::string other;
    std::thread([&] {
        other = tw_last_error();
        tw_processor_latency(nullptr, nullptr);
    }).join();
    EXPECT_EQ(other, "");
    EXPECT_STREQ(tw_last_error(), "tw_processor_process: processor is NULL");
    EXPECT_STREQ(tw_version(), TONWERK_TEST_VERSION);
}

}  // namespace
}  // namespace tonwerk::test
