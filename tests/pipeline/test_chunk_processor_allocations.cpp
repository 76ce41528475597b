// A streaming host calls process() hundreds of times a second: once a stream
// runs, the chunk engine must not touch the heap. The only allocation left
// is the list of output buffers that a model run takes by value.
#include "pipeline/chunk_processor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

// The replacement pair below hands out malloc memory, which GCC cannot see
// when it matches inlined new and delete expressions.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {

std::atomic<bool> counting{false};
std::atomic<long> allocations{0};

}  // namespace

void* operator new(std::size_t size) {
    if (counting) ++allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace tonwerk {
namespace {

// Vocals are the input, the other stems silence, as fast as memory allows.
class CopyModel final : public IInference {
public:
    bool run(float* input, std::vector<float*> outputs, const std::array<std::int64_t, 4>& shape) override {
        const auto count = static_cast<std::size_t>(shape[0] * shape[1] * shape[2] * shape[3]);
        std::copy(input, input + count, outputs[0]);
        for (std::size_t s = 1; s < outputs.size(); ++s) std::fill(outputs[s], outputs[s] + count, 0.0F);
        ++runs;
        return true;
    }
    long runs = 0;
};

TEST(ChunkProcessorAllocations, SteadyStreamingAllocatesOnlyTheModelRunsOutputList) {
    auto model = std::make_shared<CopyModel>();
    ChunkProcessor chunks(model, 2, 4096, 1024, 0, 256, 6);
    constexpr std::size_t kBlock = 4096;
    std::vector<float> block(2 * kBlock);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = 0.001F * static_cast<float>(i % 977);
    auto feed = [&](std::size_t blocks) {
        for (std::size_t b = 0; b < blocks; ++b) chunks.process(block.data(), kBlock, 1, 2, false);
    };
    feed(200);  // two chunks: the engine's arrays reach their steady sizes
    const long runsBefore = model->runs;
    counting = true;
    feed(300);  // about five more chunks
    counting = false;
    const long runs = model->runs - runsBefore;
    ASSERT_GE(runs, 4);
    EXPECT_EQ(allocations.load(), runs);
}

}  // namespace
}  // namespace tonwerk
