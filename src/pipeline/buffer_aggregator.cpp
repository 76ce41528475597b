#include "pipeline/buffer_aggregator.h"

#include "common/logging.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

// Copies `count` samples that start at ring position `from` (which may wrap)
// into the contiguous `target`: at most two block copies.
void readRing(const float* row, std::size_t size, std::size_t from, std::size_t count, float* target) {
    const std::size_t first = std::min(count, size - from);
    std::memcpy(target, row + from, first * sizeof(float));
    std::memcpy(target + first, row, (count - first) * sizeof(float));
}

// Copies `count` contiguous samples into the ring from position `to` on.
void writeRing(float* row, std::size_t size, std::size_t to, std::size_t count, const float* source) {
    const std::size_t first = std::min(count, size - to);
    std::memcpy(row + to, source, first * sizeof(float));
    std::memcpy(row, source + first, (count - first) * sizeof(float));
}

}  // namespace

BufferAggregator::BufferAggregator(std::size_t channels, std::size_t size, int batch) : batch(batch) {
    TW_LOG(debug, "BufferAggregator::BufferAggregator")
        << "BufferAggregator constructor - channels: " << channels << ", size: " << size << ", batch: " << batch;
    // Ring positions are taken modulo the capacity.
    if (size == 0) {
        throw std::invalid_argument("BufferAggregator: capacity must not be 0");
    }
    if (batch < 0) {
        throw std::invalid_argument("BufferAggregator: batch must not be negative, got " + std::to_string(batch));
    }
    buffer = xt::zeros<float>({static_cast<std::size_t>(batch), channels, size});
    TW_LOG(verbose, "BufferAggregator::BufferAggregator") << "Buffer shape: [" << buffer.shape()[0] << ", "
                                                          << buffer.shape()[1] << ", " << buffer.shape()[2] << "]";
    TW_LOG(verbose, "BufferAggregator::BufferAggregator") << "Buffer total size: " << buffer.size() << " elements";
}

void BufferAggregator::push(const xt::xarray<float>& chunk) {
    const std::size_t rank = chunk.dimension();
    if (rank != 2 && rank != 3) {
        throw std::invalid_argument("BufferAggregator: chunk must have rank 2 or 3, got rank " +
                                    std::to_string(rank));
    }
    const std::size_t n = chunk.shape()[rank - 1];
    const std::size_t size = capacity();
    requireRoom(n);
    const std::size_t rows = static_cast<std::size_t>(batch);
    const std::size_t channels = buffer.shape()[1];
    const std::size_t chunkChannels = chunk.shape()[rank - 2];
    // A rank-3 chunk of one batch entry is broadcast like a rank-2 one.
    const std::size_t chunkRows = rank == 3 ? chunk.shape()[0] : 1;
    if (chunkChannels != channels || (chunkRows != rows && chunkRows != 1)) {
        throw std::invalid_argument("BufferAggregator: chunk rows do not match the buffer's " +
                                    std::to_string(rows) + "x" + std::to_string(channels));
    }
    if (n == 0) {
        return;
    }

    const std::size_t write = (start + length) % size;
    const float* source = chunk.data();
    float* storage = buffer.data();
    for (std::size_t b = 0; b < rows; ++b) {
        const std::size_t sourceRow = chunkRows == 1 ? 0 : b;
        for (std::size_t c = 0; c < channels; ++c) {
            writeRing(storage + (b * channels + c) * size, size, write, n, source + (sourceRow * channels + c) * n);
        }
    }
    length += n;
}

void BufferAggregator::pushFrames(const float* data, std::size_t frames, std::size_t channelStride,
                                  std::size_t sampleStride) {
    requireRoom(frames);
    if (frames == 0) return;  // an empty host block may come with a null data pointer
    const std::size_t size = capacity();
    const std::size_t rows = static_cast<std::size_t>(batch) * buffer.shape()[1];
    const std::size_t channels = buffer.shape()[1];
    const std::size_t write = (start + length) % size;
    const std::size_t first = std::min(frames, size - write);
    for (std::size_t row = 0; row < rows; ++row) {
        const float* source = data + (row % channels) * channelStride;
        float* ring = buffer.data() + row * size;
        for (std::size_t i = 0; i < first; ++i) ring[write + i] = source[i * sampleStride];
        for (std::size_t i = first; i < frames; ++i) ring[i - first] = source[i * sampleStride];
    }
    length += frames;
}

void BufferAggregator::requireRoom(std::size_t n) const {
    if (capacity() - length < n) {
        throw std::runtime_error("Buffer overflow: cannot accept chunk of size " + std::to_string(n));
    }
}

xt::xarray<float> BufferAggregator::get(std::size_t requested, std::size_t keep) {
    xt::xarray<float> result;
    getInto(requested, keep, result);
    return result;
}

bool BufferAggregator::getInto(std::size_t requested, std::size_t keep, xt::xarray<float>& target) {
    const std::size_t n = requested != 0 ? requested : length;
    if (length == 0 || length < n) {
        TW_LOG(warning, "BufferAggregator::get")
            << "BufferAggregator::get - cannot return requested size: " << n << ", current length: " << length;
        return false;
    }
    // Keeping more than was taken would grow the held range past what was written.
    if (keep > n) {
        throw std::invalid_argument("BufferAggregator::get: keep " + std::to_string(keep) +
                                    " exceeds the requested size " + std::to_string(n));
    }
    copyOut(n, target);
    const std::size_t consumed = n - keep;
    start = (start + consumed) % capacity();
    length -= consumed;
    return true;
}

xt::xarray<float> BufferAggregator::flush() {
    const std::size_t channels = buffer.shape()[1];
    if (length == 0) {
        if (batch < 2) {
            return xt::xarray<float>::from_shape({channels, 0});
        }
        return xt::xarray<float>::from_shape({static_cast<std::size_t>(batch), channels, 0});
    }
    xt::xarray<float> result;
    copyOut(length, result);
    length = 0;
    start = 0;
    return result;
}

void BufferAggregator::copyOut(std::size_t n, xt::xarray<float>& target) const {
    const std::size_t rows = static_cast<std::size_t>(batch);
    const std::size_t channels = buffer.shape()[1];
    const std::size_t size = capacity();
    // resize() keeps the storage when the element count is unchanged.
    if (batch == 1) {
        target.resize({channels, n});
    } else {
        target.resize({rows, channels, n});
    }
    const float* storage = buffer.data();
    float* out = target.data();
    for (std::size_t row = 0; row < rows * channels; ++row) {
        readRing(storage + row * size, size, start, n, out + row * n);
    }
}

}  // namespace tonwerk
