#include "audio_input.h"

#include "tool_error.h"

#include <filesystem>
#include <sndfile.h>

namespace tonwerk::tools {

AudioInput::AudioInput(const std::string& path) : path_(path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) throw inputError(path + ": no such file");
    if (std::filesystem::is_directory(path, ec)) throw inputError(path + ": is a directory, not an audio file");
    // Pipes and devices have no known length, and every stem must match the input's.
    if (!std::filesystem::is_regular_file(path, ec)) throw inputError(path + ": not a regular file");
    SF_INFO info{};
    file_ = sf_open(path.c_str(), SFM_READ, &info);
    if (file_ == nullptr) {
        throw inputError(path + ": not a readable audio file (" + oneLine(sf_strerror(nullptr)) + ")");
    }
    frames_ = info.frames;
    sampleRate_ = info.samplerate;
    channels_ = info.channels;
    format_ = info.format;
    if (sampleRate_ <= 0 || channels_ <= 0) {
        sf_close(file_);
        file_ = nullptr;
        throw inputError(path + ": the file declares no sample rate or no channels");
    }
}

AudioInput::~AudioInput() {
    if (file_ != nullptr) sf_close(file_);
}

std::size_t AudioInput::read(float* interleaved, std::size_t frames) {
    const sf_count_t got = sf_readf_float(file_, interleaved, static_cast<sf_count_t>(frames));
    if (got < 0 || (got == 0 && sf_error(file_) != SF_ERR_NO_ERROR)) {
        throw inputError(path_ + ": read error (" + oneLine(sf_strerror(file_)) + ")");
    }
    return static_cast<std::size_t>(got);
}

}  // namespace tonwerk::tools
