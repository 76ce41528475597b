// Fixed-capacity multichannel ring buffer at the entry of the chunk pipeline.
#pragma once

#include <xtensor/xarray.hpp>

#include <cstddef>
#include <cstdint>

namespace tonwerk {

// Single-threaded. With batch 1 it speaks {channels, samples}; otherwise
// {batch, channels, samples}.
class BufferAggregator {
public:
    BufferAggregator(std::size_t channels, std::size_t size, int batch);

    // Appends `chunk` ({channels, n} or {batch, channels, n}). Throws
    // std::runtime_error "Buffer overflow: cannot accept chunk of size <n>"
    // when it does not fit; the buffer is then unchanged.
    void push(const xt::xarray<float>& chunk);

    // push() of `frames` samples per channel read straight from the caller's
    // layout: sample i of channel c is data[c * channelStride + i *
    // sampleStride] (interleaved input: 1 and the channel count; planar
    // input: the row length and 1). Every batch entry gets the same samples.
    void pushFrames(const float* data, std::size_t frames, std::size_t channelStride, std::size_t sampleStride);

    // Copies out the oldest `requested` samples (all when 0) and discards all
    // but the newest `keep` of them. Logs a warning and returns a
    // dimensionless array when that many are not held.
    xt::xarray<float> get(std::size_t requested, std::size_t keep);

    // As get(), but into `target`, whose storage is reused when the taken
    // length matches its size: a streaming caller keeps one array for every
    // chunk instead of allocating (and page-faulting) a fresh one each time.
    // Returns false, after the same warning, and leaves `target` unchanged
    // when that many samples are not held.
    bool getInto(std::size_t requested, std::size_t keep, xt::xarray<float>& target);

    // Copies out everything held and empties the buffer.
    xt::xarray<float> flush();

    std::size_t heldLength() const { return length; }
    std::size_t capacity() const { return buffer.shape()[2]; }

private:
    // Throws the overflow error when `n` more samples do not fit.
    void requireRoom(std::size_t n) const;
    void copyOut(std::size_t n, xt::xarray<float>& target) const;

    xt::xarray<float> buffer;
    std::size_t length = 0;
    std::size_t start = 0;
    std::int32_t batch;
};

}  // namespace tonwerk
