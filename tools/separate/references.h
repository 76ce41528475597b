// The true parts of an input, for scoring its stems: <stem>.<extension> in
// one folder, names compared without regard to case.
#pragma once

#include "audio_input.h"
#include "stems.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace tonwerk::tools {

using References = std::array<std::unique_ptr<AudioInput>, stemNames.size()>;

// Empty when `dir` is empty. Throws inputError when the folder is missing,
// holds no reference, holds two for one stem, or a reference differs from
// the input in sample rate, channel count or length.
References openReferences(const std::string& dir, int sampleRate, int channels, std::int64_t frames);

}  // namespace tonwerk::tools
