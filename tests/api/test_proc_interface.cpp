// The processor's contract with the host: when output starts, what
// maxInputSize reports, a missing model, calls after the end, moving handles
// and the shallow copy assignment. Block sizes, layouts, overflow and
// malformed blocks are fuzzed (tests/fuzz/fuzz_process_schedule); processors
// sharing a context are in test_proc_threads.
#include "identity_stream_check.h"
#include "test_support.h"

#include <new>
#include <optional>
#include <type_traits>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace tonwerk::test {
namespace {

TEST(ProcThresholds, OutputStartsAtExactly257024FramesAndMaxInputSizeShrinksAfterIt) {
    IdentityStreamCheck stream(loadContext("identity.onnx"), kAllStems, true);
    EXPECT_EQ(stream.processor().maxInputSize(), 257024u);
    stream.send(257023, false);
    EXPECT_EQ(stream.returned(), 0u);
    EXPECT_EQ(stream.processor().maxInputSize(), 257024u);
    stream.send(1, false);
    EXPECT_EQ(stream.returned(), 257024u - 4096u);  // the newest 4096 frames stay buffered for the next chunk
    EXPECT_EQ(stream.processor().maxInputSize(), 254976u);
}

TEST(ProcConstruction, MissingContextIsReported) {
    auto context = loadContext("identity.onnx");
    auto emptied = std::make_shared<InferenceContext>(std::move(*context));
    for (auto& missing : {std::shared_ptr<InferenceContext>(), context}) {  // none; moved from
        EXPECT_EQ(runtimeErrorOf([&] { TonwerkProc proc(missing, interleavedStereo()); }),
                  "Inference context is not provided");
    }
    EXPECT_EQ(TonwerkProc(emptied, interleavedStereo()).maxInputSize(), 257024u);
}

// A processor serves one stream, but calls past its end are defined: eof
// with nothing buffered (at the start, or a second time) returns no vectors,
// and audio given after the end streams on as if it directly followed the
// flushed stream: every stem exactly as long as the new audio, its first 4096
// frames mixed with what the old stream left in the overlap, the rest clean.
TEST(ProcLifecycle, CallsAfterTheEndAreDefined) {
    IdentityStreamCheck stream(loadContext("identity.onnx"), kAllStems, true);
    EXPECT_TRUE(stream.processor().process({}, true).empty());
    for (int i = 0; i < 73; ++i) stream.send(4096, i == 72);
    EXPECT_TRUE(stream.processor().process({}, true).empty());
    for (int i = 0; i < 54; ++i) stream.send(5000, i == 53);
}

// Allocations made while one exists are not reported as leaks.
struct LeaksExpected {
#if defined(__SANITIZE_ADDRESS__)
    LeaksExpected() { __lsan_disable(); }
    ~LeaksExpected() { __lsan_enable(); }
#endif
};

static_assert(!std::is_copy_constructible_v<TonwerkProc>, "copies would free one stream twice");
static_assert(std::is_nothrow_move_constructible_v<TonwerkProc> && std::is_nothrow_move_assignable_v<TonwerkProc>,
              "handles relocate in containers");

// Each stream travels with its handle through reallocations and moves; a
// moved-from handle is empty, and assigning over a handle ends its stream.
TEST(ProcMoves, StreamsFollowTheirHandles) {
    const auto first = toneBlock(0, 3000), rest = toneBlock(3000, 3000);
    auto context = loadContext("identity.onnx");
    TonwerkProc alone(context, interleavedStereo());
    alone.process(first, false);
    const auto expected = alone.process(rest, true);
    ASSERT_EQ(expected.at(0).size(), 2u * 6000u);
    std::vector<TonwerkProc> procs;
    for (int i = 0; i < 5; ++i) {
        procs.emplace_back(context, interleavedStereo());
        ASSERT_TRUE(procs.back().process(first, false).empty());
    }
    TonwerkProc moved(std::move(procs[0]));
    EXPECT_EQ(runtimeErrorOf([&] { procs[0].maxInputSize(); }), "Processor is not prepared");
    procs[1] = std::move(moved);
    auto& self = procs[2];
    procs[2] = std::move(self);
    // Back to one owner after a shallow copy: the moved-from twin lets go.
    std::optional<TonwerkProc> twin;
    {
        [[maybe_unused]] LeaksExpected leaks;  // twin's own stream, dropped by the copy
        twin.emplace(context, interleavedStereo());
    }
    *twin = procs[3];
    procs[3] = std::move(*twin);
    procs.erase(procs.begin());
    for (auto& proc : procs) EXPECT_EQ(proc.process(rest, true), expected);
}

// The target is never destroyed: it would free the source's implementation a
// second time. Its own former implementation leaks by design of the assignment.
TEST(ProcCopyAssignment, BothHandlesDriveOneStream) {
    auto context = loadContext("identity.onnx");
    TonwerkProc source(context, interleavedStereo());
    alignas(TonwerkProc) unsigned char storage[sizeof(TonwerkProc)];
    TonwerkProc* target = nullptr;
    {
        [[maybe_unused]] LeaksExpected leaks;
        target = new (storage) TonwerkProc(context, interleavedStereo());
    }
    *target = source;
    // 257023 frames through one handle are one short of the first result;
    // the next frame through the other completes it.
    EXPECT_TRUE(source.process(std::vector<float>(2 * 257023, 0.25F), false).empty());
    const auto stems = target->process(std::vector<float>(2, 0.25F), false);
    ASSERT_EQ(stems.size(), 8u);
    EXPECT_EQ(stems[0].size(), 2U * (257024U - 4096U));
    EXPECT_EQ(source.maxInputSize(), 254976U);
}

}  // namespace
}  // namespace tonwerk::test
