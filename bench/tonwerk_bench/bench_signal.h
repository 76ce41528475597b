// The synthetic stereo stream every measurement feeds: a few seconds of
// tones and noise, repeated as often as the stream needs, so that memory
// does not grow with the length measured.
#pragma once

#include <cstddef>
#include <vector>

namespace tonwerk::bench {

constexpr std::size_t kSampleRate = 44100;
constexpr std::size_t kHostBlock = 4096;

class BenchSignal {
public:
    explicit BenchSignal(std::size_t frames);

    std::size_t frames() const { return frames_; }
    // Interleaved stereo frames [at, at + count) of the stream into `block`
    // (resized to 2 * count), as a host copies a block into its own buffer.
    void fill(std::size_t at, std::size_t count, std::vector<float>& block) const;
    // Channel `channel` of frames [at, at + count) into `row`.
    void fillRow(std::size_t channel, std::size_t at, std::size_t count, float* row) const;

private:
    std::size_t frames_;
    std::vector<float> period;  // interleaved, repeated
};

}  // namespace tonwerk::bench
