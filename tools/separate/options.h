// Command line of tonwerk-separate.
#pragma once

#include "stems.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tonwerk::tools {

enum class SampleFormat { float32, pcm24, pcm16 };

struct SeparateOptions {
    std::string input;
    std::string outDir = ".";
    std::string modelPath;  // empty: the default model beside the executable
    std::string key;        // empty: the model file is not scrambled
    StemSelection stems{true, true, true, true, true, true};
    std::size_t blockFrames = 4096;
    std::optional<SampleFormat> format;  // empty: chosen from the input file
    std::string referenceDir;            // empty: no SDR report
    bool help = false;
};

extern const char* const separateUsage;

// Throws usageError for anything malformed; `args` excludes the program name.
SeparateOptions parseSeparateOptions(const std::vector<std::string>& args);

const char* sampleFormatName(SampleFormat format);

}  // namespace tonwerk::tools
