#include "references.h"

#include "audio_files.h"
#include "tool_error.h"

#include <filesystem>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

std::string channelText(int channels) { return std::to_string(channels) + (channels == 1 ? " channel" : " channels"); }

void checkMatches(const AudioInput& reference, int sampleRate, int channels, std::int64_t frames) {
    if (reference.sampleRate() != sampleRate || reference.channels() != channels) {
        throw inputError("reference " + reference.path() + " has " + std::to_string(reference.sampleRate()) +
                         " Hz and " + channelText(reference.channels()) + ", the input has " +
                         std::to_string(sampleRate) + " Hz and " + channelText(channels));
    }
    if (reference.frames() != frames) {
        throw inputError("reference " + reference.path() + " is " + std::to_string(reference.frames()) +
                         " frames long, the input " + std::to_string(frames) + ": SDR compares sample by sample");
    }
}

}  // namespace

References openReferences(const std::string& dir, int sampleRate, int channels, std::int64_t frames) {
    References references;
    if (dir.empty()) return references;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw inputError("reference folder " + dir + ": no such folder");
    std::array<fs::path, stemNames.size()> found;
    for (const fs::path& file : audioFilesIn(dir)) {
        const std::string stem = lowerCase(file.stem().string());
        for (std::size_t i = 0; i < stemNames.size(); ++i) {
            if (stem != stemNames[i]) continue;
            if (!found[i].empty()) {
                throw inputError("reference folder " + dir + " holds two references for " + stemNames[i] + ": " +
                                 found[i].filename().string() + " and " + file.filename().string());
            }
            found[i] = file;
        }
    }
    bool any = false;
    for (std::size_t i = 0; i < stemNames.size(); ++i) {
        if (found[i].empty()) continue;
        references[i] = std::make_unique<AudioInput>(found[i].string());
        checkMatches(*references[i], sampleRate, channels, frames);
        any = true;
    }
    if (!any) {
        throw inputError("reference folder " + dir +
                         " holds no <stem>.<extension> audio file (vocals.wav, drum.flac, ...)");
    }
    return references;
}

}  // namespace tonwerk::tools
