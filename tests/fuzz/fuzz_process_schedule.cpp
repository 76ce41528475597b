// libFuzzer target: the fuzzer's bytes choose a processor's layout, channel
// count and stems and a schedule of process() calls (block sizes from 0 to
// beyond the input buffer, ends of stream, malformed blocks) over a short
// stream through the identity model. Every returned frame is checked
// (identity_stream_check.h); besides, a block of at most maxInputSize()
// frames is accepted, one larger than the buffer is refused with "Buffer
// overflow: cannot accept chunk of size N", layouts that cannot be split into
// frames are refused, and a refused block changes nothing.
#include "identity_stream_check.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::size_t kBufferFrames = 514048;
constexpr std::size_t kMaxStreamFrames = 320000;  // one model run and a flush: keeps an input quick

[[noreturn]] void broken(const std::string& what) {
    std::fprintf(stderr, "process schedule: %s\n", what.c_str());
    std::abort();
}

std::shared_ptr<tonwerk::InferenceContext> identityContext() {
    static const auto context = tonwerk::test::loadContext("identity.onnx");
    return context;
}

// One call; returns the frames accepted.
std::size_t call(tonwerk::test::IdentityStreamCheck& stream, bool validLayout, std::size_t frames, bool eof) {
    const std::size_t limit = stream.processor().maxInputSize();
    try {
        stream.send(frames, eof);
    } catch (const tonwerk::test::StreamMismatch& e) {
        broken(e.what());
    } catch (const std::invalid_argument& e) {
        if (validLayout) broken(std::string("valid block refused: ") + e.what());
        return 0;
    } catch (const std::runtime_error& e) {
        const std::string expected = "Buffer overflow: cannot accept chunk of size " + std::to_string(frames);
        if (e.what() != expected) broken(std::string("unexpected error: ") + e.what());
        if (frames <= limit) broken("a block of maxInputSize() frames or fewer was refused: " + expected);
        return 0;
    }
    if (!validLayout) broken("a layout that cannot be split into frames was accepted");
    if (frames > kBufferFrames) broken("a block larger than the input buffer was accepted");
    return frames;
}

// A planar block of an odd number of floats must be refused.
void callMalformed(tonwerk::test::IdentityStreamCheck& stream, std::size_t frames) {
    std::vector<float> block = stream.nextBlock(frames);
    block.push_back(0.0F);
    try {
        stream.processor().process(block, false);
    } catch (const std::invalid_argument&) {
        return;
    }
    broken("an odd planar block was accepted");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const bool interleaved = input.ConsumeBool();
    const auto channels = input.ConsumeIntegralInRange<std::int32_t>(0, 4);
    const bool valid = channels != 0 && !(interleaved && channels == 1);
    tonwerk::test::IdentityStreamCheck stream(identityContext(), input.ConsumeIntegralInRange<unsigned>(0, 63),
                                              interleaved, channels);
    for (std::size_t total = 0; input.remaining_bytes() > 0 && total < kMaxStreamFrames;) {
        const std::size_t limit = stream.processor().maxInputSize();
        const std::size_t budget = kMaxStreamFrames - total;
        std::size_t frames = 0;
        bool eof = false;
        switch (input.ConsumeIntegralInRange(0, 7)) {
            case 0: break;
            case 1: frames = std::min(budget, input.ConsumeIntegralInRange<std::size_t>(1, 64)); break;
            case 2: frames = std::min(budget, input.ConsumeIntegralInRange<std::size_t>(1, 5000)); break;
            case 3: frames = std::min(budget, limit); break;
            // May or may not fit, depending on what is held.
            case 4: frames = input.ConsumeIntegralInRange<std::size_t>(limit + 1, kBufferFrames); break;
            case 5: frames = kBufferFrames + input.ConsumeIntegralInRange<std::size_t>(1, 1000); break;
            case 6:
                frames = std::min(budget, input.ConsumeIntegralInRange<std::size_t>(0, 5000));
                eof = true;
                break;
            default:
                frames = input.ConsumeIntegralInRange<std::size_t>(0, 100);
                if (valid && !interleaved) callMalformed(stream, frames);
                continue;
        }
        total += call(stream, valid, frames, eof);
    }
    if (valid && stream.sent() > 0) call(stream, valid, 0, true);
    return 0;
}
