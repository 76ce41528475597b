// Streams an input file through a TonwerkProc into the stem outputs.
#pragma once

#include "audio_input.h"
#include "progress_bar.h"
#include "stem_output.h"

#include <tonwerk/tonwerk_proc_multistem.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace tonwerk::tools {

// The rate the separator works at.
inline constexpr int separatorSampleRate = 44100;

// Reads `input` to the end, converts it to stereo at the separator's rate,
// hands it to `processor` in blocks of `blockFrames` frames (the last one
// with eof) and passes every returned stem on to `stems` (eight, in the
// library's order). Finishes every stem output; commits nothing.
void runSeparation(AudioInput& input, TonwerkProc& processor, std::size_t blockFrames,
                   std::vector<std::unique_ptr<StemOutput>>& stems, ProgressBar& progress);

}  // namespace tonwerk::tools
