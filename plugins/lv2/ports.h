// The plugin's ports, numbered as tonwerk_stems.ttl.in declares them.
#pragma once

#include "tonwerk/tonwerk_c.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tonwerk::lv2 {

// The adapter outputs the plugin mixes back together: the six stems and the
// residual, which together are the delayed input. The adapter's own mix
// (the stems alone) is left out.
constexpr std::array<int, 7> kMixedOutputs = {
    TW_OUTPUT_VOCALS, TW_OUTPUT_DRUM, TW_OUTPUT_PIANO, TW_OUTPUT_ACOUSTIC_GUITAR,
    TW_OUTPUT_ELECTRIC_GUITAR, TW_OUTPUT_BASS, TW_OUTPUT_RESIDUAL};
constexpr std::size_t kGainCount = kMixedOutputs.size();
using Gains = std::array<float, kGainCount>;

enum Port : std::uint32_t {
    kInputLeft = 0,
    kInputRight,
    kOutputLeft,
    kOutputRight,
    kFirstGain,  // one gain per mixed output, in kMixedOutputs order
    kOffline = kFirstGain + kGainCount,
    kLatency,
    kUnderruns,
    kFreeWheel,  // optional: hosts that know it say when they run faster than real time
    kThreads,    // threads per model run
    kControl,    // atom input: patch messages choosing the model
    kNotify,     // atom output: the model in use, when it changes or is asked for
    kPortCount
};

// What the gain controls allow; the ttl declares the same range.
constexpr float kMinGain = 0.0F;
constexpr float kMaxGain = 2.0F;
// The thread control's range; the ttl declares the same.
constexpr std::uint32_t kMinThreads = 1;
constexpr std::uint32_t kMaxThreads = 8;

}  // namespace tonwerk::lv2
