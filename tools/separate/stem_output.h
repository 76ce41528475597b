// One stem on its way from the separator to its file: back to the input's
// sample rate, back to mono for mono input, cut or padded to the input's
// exact length, measured, and written.
#pragma once

#include "audio_input.h"
#include "output_format.h"
#include "pending_audio_file.h"
#include "signal_stats.h"
#include "stream_resampler.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tonwerk::tools {

struct StemTarget {
    int sampleRate;       // the input's
    int channels;         // 1 or 2, the input's
    std::int64_t frames;  // the input's length
    OutputFormat format;
    bool dither;
};

class StemOutput {
public:
    // `reference`, when given, must have the target's rate, channel count and length.
    StemOutput(std::size_t stem, const std::filesystem::path& path, const StemTarget& target,
               std::unique_ptr<AudioInput> reference);

    // Interleaved stereo at the separator's rate.
    void push(const float* stereo, std::size_t frames);
    // Drains the resampler, pads to the target length and completes the file.
    void finish();

    std::size_t stem() const { return stem_; }  // index into stemNames
    PendingAudioFile& file() { return file_; }
    const PendingAudioFile& file() const { return file_; }
    const SignalStats& stats() const { return stats_; }
    bool hasReference() const { return reference_ != nullptr; }
    std::optional<double> sdrDb() const { return sdr_.sdrDb(); }

private:
    void writeAtTargetRate(const std::vector<float>& stereo);

    std::size_t stem_;
    StemTarget target_;
    StreamResampler resampler_;
    PendingAudioFile file_;
    std::unique_ptr<AudioInput> reference_;
    std::int64_t written_ = 0;
    SignalStats stats_;
    SdrMeter sdr_;
    std::vector<float> converted_;
    std::vector<float> samples_;
    std::vector<float> referenceSamples_;
};

}  // namespace tonwerk::tools
