// Writing and reading the small audio files the tool tests feed and check.
#pragma once

#include <filesystem>
#include <vector>

namespace tonwerk::test {

struct TestAudio {
    int sampleRate = 0;
    int channels = 0;
    int format = 0;             // libsndfile format word (major | subtype)
    std::vector<float> samples;  // interleaved

    std::size_t frames() const { return channels == 0 ? 0 : samples.size() / static_cast<std::size_t>(channels); }
    float at(std::size_t frame, int channel) const {
        return samples[frame * static_cast<std::size_t>(channels) + static_cast<std::size_t>(channel)];
    }
};

void writeAudio(const std::filesystem::path& path, const TestAudio& audio);
TestAudio readAudio(const std::filesystem::path& path);

// Tones faded in and out over 50 ms, so resampling has no edges to ring
// at: channel c holds a sine of baseHz * (c + 1) plus a quieter octave.
TestAudio makeTones(int sampleRate, int channels, double seconds, double baseHz, int format);

// Largest |a - b| over all samples; the two must have the same size.
float maxAbsDifference(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace tonwerk::test
