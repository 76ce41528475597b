// The eight vectors a processor call returns, built from the chunk engine's
// rows in one sweep.
#pragma once

#include <xtensor/xarray.hpp>

#include <vector>

namespace tonwerk {

// `result` is {stems + 1, 2, n}: the stems, then the aligned mixture. Gives
// the stems, the residual (mixture minus the stems' sum) and the mix (the
// stems summed in stem order, in single precision), each two channels of n,
// interleaved or planar.
std::vector<std::vector<float>> buildStemOutputs(const xt::xarray<float>& result, bool interleaved);

}  // namespace tonwerk
