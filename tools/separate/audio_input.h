// An audio file opened for reading through libsndfile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

typedef struct sf_private_tag SNDFILE;

namespace tonwerk::tools {

class AudioInput {
public:
    // Throws inputError when the file is missing or not audio libsndfile reads.
    explicit AudioInput(const std::string& path);
    ~AudioInput();
    AudioInput(const AudioInput&) = delete;
    AudioInput& operator=(const AudioInput&) = delete;

    const std::string& path() const { return path_; }
    std::int64_t frames() const { return frames_; }
    int sampleRate() const { return sampleRate_; }
    int channels() const { return channels_; }

    // libsndfile's format word (major format | subtype) of the file.
    int fileFormat() const { return format_; }

    // Reads up to `frames` frames, interleaved in the file's channel count.
    // Returns how many it read; 0 at the end. Throws inputError on read errors.
    std::size_t read(float* interleaved, std::size_t frames);

private:
    std::string path_;
    SNDFILE* file_ = nullptr;
    std::int64_t frames_ = 0;
    int sampleRate_ = 0;
    int channels_ = 0;
    int format_ = 0;
};

}  // namespace tonwerk::tools
