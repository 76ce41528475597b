#include "pipeline/stream_padding.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

void requireRankTwo(const xt::xarray<float>& data, const char* operation) {
    if (data.dimension() != 2) {
        throw std::invalid_argument(std::string(operation) + ": expected {channels, samples}, got rank " +
                                    std::to_string(data.dimension()));
    }
}

void requireReachable(std::size_t count, std::size_t length, const char* operation) {
    if (count != 0 && count >= length) {
        throw std::invalid_argument(std::string(operation) + ": cannot mirror " + std::to_string(count) +
                                    " samples of a signal " + std::to_string(length) + " samples long");
    }
}

}  // namespace

xt::xarray<float> padEnd(const xt::xarray<float>& data, std::size_t reflectCount, std::size_t zeroCount) {
    requireRankTwo(data, "padEnd");
    const std::size_t rows = data.shape()[0];
    const std::size_t length = data.shape()[1];
    requireReachable(reflectCount, length, "padEnd");
    const std::size_t padded = length + reflectCount + zeroCount;
    xt::xarray<float> out = xt::xarray<float>::from_shape({rows, padded});
    for (std::size_t r = 0; r < rows; ++r) {
        const float* src = data.data() + r * length;
        float* dst = out.data() + r * padded;
        std::copy(src, src + length, dst);
        // Sample length + j mirrors sample length - 2 - j about the last one.
        for (std::size_t j = 0; j < reflectCount; ++j) {
            dst[length + j] = src[length - 2 - j];
        }
        std::fill(dst + length + reflectCount, dst + padded, 0.0F);
    }
    return out;
}

xt::xarray<float> padFront(const xt::xarray<float>& data, std::size_t count) {
    requireRankTwo(data, "padFront");
    const std::size_t rows = data.shape()[0];
    const std::size_t length = data.shape()[1];
    requireReachable(count, length, "padFront");
    const std::size_t padded = length + count;
    xt::xarray<float> out = xt::xarray<float>::from_shape({rows, padded});
    for (std::size_t r = 0; r < rows; ++r) {
        const float* src = data.data() + r * length;
        float* dst = out.data() + r * padded;
        // Sample count - 1 - j mirrors sample j + 1 about the first one.
        for (std::size_t j = 0; j < count; ++j) {
            dst[count - 1 - j] = src[j + 1];
        }
        std::copy(src, src + length, dst + count);
    }
    return out;
}

}  // namespace tonwerk
