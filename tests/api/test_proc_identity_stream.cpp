// Whole streams through the identity model at the buffer's limits, every
// returned frame checked (identity_stream_check.h). Single-call streams cover
// a flush that fits one model run (1000, 257024) and ones that do not
// (257025, 300000, and 600000 in blocks of 254976, which leaves 342976 frames
// for the flush); 531441 frames in blocks of maxInputSize() cross two chunk
// seams first. Random schedules of smaller blocks are in the schedule fuzzer.
#include "proc_stream_support.h"

namespace tonwerk_test {
namespace {

TEST(IdentityStream, StreamsAtTheBuffersLimitsComeBackWhole) {
    const struct {
        std::size_t frames, block;  // block 0: maxInputSize() each call
    } cases[] = {{531441, 0}, {1000, 1000}, {257024, 257024}, {257025, 257025}, {300000, 300000}, {600000, 254976}};
    const auto context = loadContext("identity.onnx");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.frames) + " frames in blocks of " + std::to_string(c.block));
        IdentityStreamCheck stream(context, kAllStems, c.block % 2 == 0);
        for (std::size_t sent = 0; sent < c.frames;) {
            const std::size_t n = std::min(c.block != 0 ? c.block : stream.processor().maxInputSize(), c.frames - sent);
            sent += n;
            stream.send(n, sent == c.frames);
        }
    }
}

}  // namespace
}  // namespace tonwerk_test
