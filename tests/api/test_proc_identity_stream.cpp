// Whole streams through the identity model at the buffer's limits, every
// returned frame checked (identity_stream_check.h). Single-call streams cover
// a flush that fits one model run (1000, 257024) and ones that do not
// (257025, 300000, and 600000 in blocks of 254976, which leaves 342976 frames
// for the flush); 531441 frames in blocks of maxInputSize() cross two chunk
// seams first. Streams shorter than a frame are all edge: 1 and 2 frames
// mirror no or one sample and the rest is silence; 1024 and 4096 are whole
// hops with no end padding to round up, 1025 rounds up. No stems, or all but the vocals, leave the mix silent and the
// whole input in the residual. Random schedules of smaller blocks are in the
// schedule fuzzer.
#include "identity_stream_check.h"

#include <gtest/gtest.h>

namespace tonwerk::test {
namespace {

TEST(IdentityStream, StreamsAtTheBuffersLimitsComeBackWhole) {
    const struct {
        std::size_t frames, block;  // block 0: maxInputSize() each call
        unsigned stems;
    } cases[] = {{531441, 0, kAllStems},      {1, 1, kAllStems},           {2, 2, kAllStems},
                 {1000, 1000, 0x00},          {1024, 1024, kAllStems},     {1025, 1025, kAllStems},
                 {4096, 4096, kAllStems},     {257024, 257024, kAllStems}, {257025, 257025, kAllStems},
                 {300000, 300000, 0x3E},      {600000, 254976, kAllStems}};
    const auto context = loadContext("identity.onnx");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.frames) + " frames in blocks of " + std::to_string(c.block));
        IdentityStreamCheck stream(context, c.stems, c.block % 2 == 0);
        for (std::size_t sent = 0; sent < c.frames;) {
            const std::size_t n = std::min(c.block != 0 ? c.block : stream.processor().maxInputSize(), c.frames - sent);
            sent += n;
            stream.send(n, sent == c.frames);
        }
    }
}

}  // namespace
}  // namespace tonwerk::test
