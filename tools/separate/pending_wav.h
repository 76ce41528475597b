// A WAV file written under a temporary name and moved to its final name only
// when the whole job has succeeded; otherwise it is removed.
#pragma once

#include "options.h"

#include <cstddef>
#include <filesystem>

typedef struct sf_private_tag SNDFILE;

namespace tonwerk::tools {

class PendingWav {
public:
    // Throws inputError when the temporary file cannot be created.
    PendingWav(std::filesystem::path finalPath, int sampleRate, int channels, SampleFormat format);
    // Removes the temporary file unless commit() succeeded.
    ~PendingWav();
    PendingWav(const PendingWav&) = delete;
    PendingWav& operator=(const PendingWav&) = delete;

    void write(const float* interleaved, std::size_t frames);
    // Completes the file (its header) under the temporary name.
    void close();
    // Renames the closed file to its final name.
    void commit();
    // Deletes the file again, wherever it is; for rolling back committed files.
    void remove();

    const std::filesystem::path& finalPath() const { return finalPath_; }

private:
    std::filesystem::path finalPath_;
    std::filesystem::path tempPath_;
    SNDFILE* file_ = nullptr;
    bool committed_ = false;
};

}  // namespace tonwerk::tools
