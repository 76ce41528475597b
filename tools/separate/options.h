// Command line of tonwerk-separate.
#pragma once

#include "output_format.h"
#include "stems.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tonwerk::tools {

enum class Verbosity { quiet, normal, verbose };

// What to do when a stem file to be written already exists.
enum class ExistingOutputs { refuse, skip, overwrite };

struct SeparateOptions {
    std::vector<std::string> inputs;  // files and folders, as given
    std::string outDir = ".";
    std::string namePattern;  // empty: "{input}.{stem}" for one input file, "{input}/{stem}" otherwise
    std::string modelPath;    // empty: the default model beside the executable
    std::string key;          // empty: the model file is not scrambled
    StemSelection stems{true, true, true, true, true, true};
    bool stemsGiven = false;
    std::optional<OutputSelection> stemsOut;  // empty: the asked-for stems, residual and mix
    std::size_t blockFrames = 4096;
    std::optional<FormatRequest> format;  // empty: from the name's extension or the input
    bool dither = false;
    std::string referenceDir;  // empty: no SDR report
    ExistingOutputs existing = ExistingOutputs::refuse;
    Verbosity verbosity = Verbosity::normal;
    std::string jsonPath;  // empty: no JSON summary; "-": standard output
    std::string partTag;   // empty: HOST-PID-RANDOM in the temporary names
    bool serve = false;    // inputs come from standard input, each one of many
    bool help = false;
    bool version = false;
};

extern const char* const separateUsage;

// Throws usageError for anything malformed; `args` excludes the program name.
SeparateOptions parseSeparateOptions(const std::vector<std::string>& args);

// The stems a run writes: --stems-out, or else the asked-for model stems
// with residual and mix.
OutputSelection writtenStems(const SeparateOptions& options);

}  // namespace tonwerk::tools
