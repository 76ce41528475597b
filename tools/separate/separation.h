// Streams an input file through a TonwerkProc into the stem outputs.
#pragma once

#include "audio_input.h"
#include "console.h"
#include "progress_bar.h"
#include "stem_output.h"
#include "stems.h"

#include <tonwerk/tonwerk_proc_multistem.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace tonwerk::tools {

// The rate the separator works at.
inline constexpr int separatorSampleRate = 44100;

// Reads `input` to the end, converts it to stereo at the separator's rate,
// hands it to `processor` in blocks of `blockFrames` frames (the last one
// with eof) and passes every returned stem on to its output in `stems`
// (those not written have none). After every call it passes the library's
// output on through `console`.
//
// A model run that gives back nothing, every `asked` stem exactly zero
// while the input it covers is audible, is a failed run (a healthy model
// always leaves something): that throws inputError at once, naming the
// stretch and the library's last logged error. Finishes every stem output;
// commits nothing.
void runSeparation(AudioInput& input, TonwerkProc& processor, std::size_t blockFrames, const StemSelection& asked,
                   std::vector<std::unique_ptr<StemOutput>>& stems, ProgressBar& progress, Console& console);

}  // namespace tonwerk::tools
