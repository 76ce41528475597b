// A stem file written under a temporary name and moved to its final name
// only when the whole input has succeeded; otherwise it is removed.
#pragma once

#include "output_format.h"
#include "quantizer.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

typedef struct sf_private_tag SNDFILE;

namespace tonwerk::tools {

// The tag in every temporary name this process writes (.NAME.part-TAG):
// HOST-PID-RANDOM unless set, so processes on machines that share a folder
// never collide and a caller that chose the tag can find its own leftovers.
// Set once at start-up, before any file is written.
void setPartTag(std::string tag);
const std::string& partTag();

class PendingAudioFile {
public:
    // Throws inputError when the temporary file cannot be created. Integer
    // formats are rounded by the tool itself (to nearest, dithered when
    // `dither`), seeded with `ditherSeed`.
    PendingAudioFile(std::filesystem::path finalPath, int sampleRate, int channels, const OutputFormat& format,
                     bool dither, std::uint64_t ditherSeed);
    // Removes the temporary file unless commit() succeeded.
    ~PendingAudioFile();
    PendingAudioFile(const PendingAudioFile&) = delete;
    PendingAudioFile& operator=(const PendingAudioFile&) = delete;

    void write(const float* interleaved, std::size_t frames);
    // Completes the file (its header, the encoder's last packets) under the temporary name.
    void close();
    // Renames the closed file to its final name, replacing any file there.
    void commit();
    // Deletes the file again, wherever it is; for rolling back committed files.
    void remove();

    const std::filesystem::path& finalPath() const { return finalPath_; }
    // Samples clipped at full scale: by the rounding to integers, or, for
    // lossy formats, those beyond ±1 that a decoder will clip.
    std::size_t clipped() const { return quantizer_ ? quantizer_->clipped() : lossyClipped_; }

private:
    std::filesystem::path finalPath_;
    std::filesystem::path tempPath_;
    int channels_;
    bool lossy_;
    SNDFILE* file_ = nullptr;
    std::optional<Quantizer> quantizer_;
    std::vector<std::int32_t> steps_;
    std::size_t lossyClipped_ = 0;
    bool committed_ = false;
};

}  // namespace tonwerk::tools
