#include "live/block_ring.h"

#include <stdexcept>

namespace tonwerk {

BlockRing::BlockRing(std::size_t blocks, std::size_t floatsPerBlock)
    : headers_(blocks), floats_(blocks * floatsPerBlock), floatsPerBlock_(floatsPerBlock) {
    if (blocks == 0) {
        throw std::invalid_argument("BlockRing: a ring needs at least one block");
    }
}

BlockHeader* BlockRing::writable() {
    const std::uint64_t position = published_.load(std::memory_order_relaxed);
    // Acquire: the consumer's reads of the block come before its reuse.
    if (position - released_.load(std::memory_order_acquire) == headers_.size()) {
        return nullptr;
    }
    return &headers_[slotOf(position)];
}

void BlockRing::publish() {
    published_.store(published_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

BlockHeader* BlockRing::readable() {
    const std::uint64_t position = released_.load(std::memory_order_relaxed);
    if (position == published_.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return &headers_[slotOf(position)];
}

void BlockRing::release() {
    released_.store(released_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

float* BlockRing::data(const BlockHeader* block) {
    return floats_.data() + static_cast<std::size_t>(block - headers_.data()) * floatsPerBlock_;
}

}  // namespace tonwerk
