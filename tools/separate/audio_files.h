// Telling audio files from other files by their extension, for folders
// given as input and reference folders.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tonwerk::tools {

// The regular, not hidden files directly in `folder` whose extension is one
// libsndfile commonly reads (wav, flac, ogg, mp3, aiff, ...; any case),
// sorted by name. Throws inputError when the folder cannot be listed.
std::vector<std::filesystem::path> audioFilesIn(const std::filesystem::path& folder);

std::string lowerCase(std::string text);

}  // namespace tonwerk::tools
