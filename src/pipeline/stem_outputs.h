// The eight vectors a processor call returns, built from the chunk engine's
// rows in one sweep.
#pragma once

#include <xtensor/xarray.hpp>

#include <cstddef>
#include <vector>

namespace tonwerk {

// `result` is {stems + 1, 2, n}: the stems, then the aligned mixture. Gives
// the stems, the residual (mixture minus the stems' sum) and the mix (the
// stems summed in stem order, in single precision), each two channels of n,
// interleaved or planar.
std::vector<std::vector<float>> buildStemOutputs(const xt::xarray<float>& result, bool interleaved);

// The same sweep into caller memory: `rows` holds the {stems + 1, 2, n}
// rows contiguously, `out` eight buffers of 2 * n floats. Allocates nothing,
// so a real-time caller may use it.
void writeStemOutputs(const float* rows, std::size_t n, bool interleaved, float* const* out);

}  // namespace tonwerk
