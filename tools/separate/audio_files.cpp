#include "audio_files.h"

#include "tool_error.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace tonwerk::tools {

namespace fs = std::filesystem;

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::vector<fs::path> audioFilesIn(const fs::path& folder) {
    static const std::array<const char*, 16> extensions = {".wav", ".wave", ".flac", ".ogg", ".oga", ".opus",
                                                           ".mp3", ".aif",  ".aiff", ".aifc", ".w64", ".rf64",
                                                           ".caf", ".au",   ".snd",  ".m1a"};
    std::vector<fs::path> files;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& path = it->path();
        const std::string extension = lowerCase(path.extension().string());
        const bool audio = std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
        std::error_code typeError;
        if (audio && path.filename().string()[0] != '.' && it->is_regular_file(typeError)) files.push_back(path);
    }
    if (ec) throw inputError("cannot list " + folder.string() + ": " + ec.message());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace tonwerk::tools
