// Padding of a stream's first and last chunk along the time axis.
#pragma once

#include <xtensor/xarray.hpp>

#include <cstddef>

namespace tonwerk {

// `data` is {channels, length}. Mirroring never repeats the edge sample, so
// it reaches at most length - 1 samples; a larger count throws
// std::invalid_argument.

// Appends `reflectCount` mirrored samples, then `zeroCount` zeros, to every row.
xt::xarray<float> padEnd(const xt::xarray<float>& data, std::size_t reflectCount, std::size_t zeroCount);

// Prepends `count` mirrored samples to every row.
xt::xarray<float> padFront(const xt::xarray<float>& data, std::size_t count);

}  // namespace tonwerk
