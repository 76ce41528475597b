// A single-producer, single-consumer queue of fixed-size blocks of floats,
// lock-free, with every block allocated up front.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tonwerk {

// What travels with a block: which stream (generation) and which block of
// it, and whether its contents are valid.
struct BlockHeader {
    std::uint64_t generation = 0;
    std::uint64_t index = 0;
    bool ok = false;
};

// One thread writes, one thread reads; neither ever waits for the other,
// allocates or makes a system call. A block being written or read stays in
// place until publish() or release() hands it over.
class BlockRing {
public:
    BlockRing(std::size_t blocks, std::size_t floatsPerBlock);

    // Producer: the next free block, or nullptr when all are taken.
    BlockHeader* writable();
    // Producer: hands the block from writable() to the consumer.
    void publish();

    // Consumer: the oldest published block, or nullptr when none is.
    BlockHeader* readable();
    // Consumer: gives the block from readable() back to the producer.
    void release();

    float* data(const BlockHeader* block);

private:
    std::size_t slotOf(std::uint64_t position) const { return static_cast<std::size_t>(position % headers_.size()); }

    std::vector<BlockHeader> headers_;
    std::vector<float> floats_;
    std::size_t floatsPerBlock_;
    // Blocks ever published and ever released; only their owner writes each.
    alignas(64) std::atomic<std::uint64_t> published_{0};
    alignas(64) std::atomic<std::uint64_t> released_{0};
};

}  // namespace tonwerk
