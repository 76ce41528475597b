// The C interface against the C++ one it wraps: same stems bit for bit, and
// every bad argument turned into a status and a message without losing the
// stream. (The stem bits are checked through the Python package's stem names.)
#include "proc_stream_support.h"
#include "tonwerk/tonwerk_c.h"

#include <string>
#include <thread>

namespace tonwerk_test {
namespace {

struct Handles {
    tw_context* context = nullptr;
    tw_processor* proc = nullptr;
    ~Handles() {
        tw_processor_destroy(proc);
        tw_context_release(context);
    }
};

void open(Handles& h, const std::string& model, std::uint32_t mask) {
    const auto bytes = tonwerk::test::readModel(model);
    ASSERT_EQ(tw_context_create(bytes.data(), bytes.size(), nullptr, 0, &h.context), TW_OK) << tw_last_error();
    ASSERT_EQ(tw_processor_create(h.context, mask, &h.proc), TW_OK) << tw_last_error();
}

void append(StreamOutput& out, const tw_output& result) {
    std::vector<std::vector<float>> stems;
    for (const float* stem : result.stems) {
        if (result.frames > 0) stems.emplace_back(stem, stem + 2 * result.frames);
    }
    tonwerk_test::append(out, stems, true);
}

// Two model runs and a flush in blocks that are not whole hops, stems chosen
// by mask; the context handle is released before the stream starts.
TEST(CInterface, StreamsExactlyAsTheCppProcessor) {
    const Stereo signal = bandLimitedSignal(300000);
    tonwerk::TonwerkProc reference(loadContext("band_split.onnx"), makeConfig(true, 0x2D));
    const StreamOutput expected = tonwerk_test::runInBlocksOf(reference, signal, 5000);
    Handles h;
    open(h, "band_split.onnx", 0x2D);
    tw_context_release(h.context);
    h.context = nullptr;
    std::size_t latency = 0, maxInput = 0;
    ASSERT_EQ(tw_processor_latency(h.proc, &latency), TW_OK);
    EXPECT_EQ(latency, 257024U);
    StreamOutput out;
    for (std::size_t at = 0; at < signal.frames();) {
        ASSERT_EQ(tw_processor_max_input(h.proc, &maxInput), TW_OK);
        EXPECT_EQ(maxInput, at < 257024 ? 257024U : 254976U);
        const std::size_t n = std::min<std::size_t>(5000, signal.frames() - at);
        const auto input = block(signal, at, n, true);
        at += n;
        tw_output result;
        ASSERT_EQ(tw_processor_process(h.proc, input.data(), n, at == signal.frames(), &result), TW_OK);
        append(out, result);
    }
    expectSameOutput(out, expected);
}

void expectError(tw_status status, tw_status expected, const std::string& message) {
    EXPECT_EQ(status, expected) << message;
    EXPECT_EQ(tw_last_error(), message);
}

TEST(CInterface, BadArgumentsGiveAStatusAndAMessageAndLoseNothing) {
    const auto bytes = tonwerk::test::readModel("identity.onnx");
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

    Handles h;
    open(h, "identity.onnx", TW_STEMS_ALL);
    tw_processor* proc = nullptr;
    expectError(tw_processor_create(nullptr, TW_STEMS_ALL, &proc), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_create: context is NULL");
    expectError(tw_processor_create(h.context, 0x40, &proc), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_create: stem_mask 64 has bits outside TW_STEMS_ALL (63)");
    EXPECT_EQ(proc, nullptr);
    std::size_t frames = 0;
    expectError(tw_processor_latency(nullptr, &frames), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_latency: processor is NULL");
    expectError(tw_processor_max_input(h.proc, nullptr), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_max_input: frames is NULL");

    // Every refused call leaves the stream as it was: it still ends exactly.
    const Stereo signal = bandLimitedSignal(30000);
    const auto first = block(signal, 0, 10000, true);
    tw_output out;
    ASSERT_EQ(tw_processor_process(h.proc, first.data(), 10000, 0, &out), TW_OK);
    out.frames = 99;
    expectError(tw_processor_process(h.proc, nullptr, 5, 0, &out), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_process: input is NULL");
    EXPECT_EQ(out.frames, 0U);
    expectError(tw_processor_process(h.proc, first.data(), SIZE_MAX / 4, 0, &out), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_process: frames " + std::to_string(SIZE_MAX / 4) + " is beyond any buffer");
    expectError(tw_processor_process(h.proc, first.data(), 1, 0, nullptr), TW_ERROR_INVALID_ARGUMENT,
                "tw_processor_process: out is NULL");
    const std::vector<float> tooMuch(2 * 600000, 0.5F);
    expectError(tw_processor_process(h.proc, tooMuch.data(), 600000, 1, &out), TW_ERROR_BUFFER_OVERFLOW,
                "tw_processor_process: Buffer overflow: cannot accept chunk of size 600000");
    const auto rest = block(signal, 10000, 20000, true);
    ASSERT_EQ(tw_processor_process(h.proc, rest.data(), 20000, 1, &out), TW_OK) << tw_last_error();
    StreamOutput stream;
    append(stream, out);
    ASSERT_EQ(stream.frames(), 30000U);
    expectIdentityOutput(stream, signal);
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
}  // namespace tonwerk_test
