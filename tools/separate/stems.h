// The stems tonwerk-separate writes, in the order the library returns them.
#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace tonwerk::tools {

// The six the model separates, then the two the library computes itself.
inline const std::array<std::string, 8> stemNames = {
    "vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass", "residual", "mix"};
inline constexpr std::size_t modelStemCount = 6;
inline constexpr std::size_t residualStem = 6;
inline constexpr std::size_t mixStem = 7;

// Selection of the six model stems, in stemNames order.
using StemSelection = std::array<bool, modelStemCount>;
// Selection of all eight, in stemNames order.
using OutputSelection = std::array<bool, 8>;

}  // namespace tonwerk::tools
