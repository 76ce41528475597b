// The fixed shape of every stream: frame and hop sizes, the model's
// spectrogram length and the stems in result order. The processor and the
// benchmark that reproduces its model runs read them from here.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tonwerk::layout {

constexpr std::size_t kFftSize = 4096;
constexpr std::size_t kHop = 1024;
constexpr std::size_t kSegmentFrames = 256;
constexpr std::size_t kStemCount = 6;
// The processor works on stereo whatever `channels` says: that field only
// tells how many floats of the input make one frame.
constexpr std::size_t kAudioChannels = 2;

// Model output of each stem, in the order of the configuration bits and of
// a processor's result.
inline std::vector<std::string> stemOutputNames() {
    return {"vocals_output",          "drum_output",           "piano_output",
            "acoustic_guitar_output", "electric_guitar_output", "bass_output"};
}

}  // namespace tonwerk::layout
