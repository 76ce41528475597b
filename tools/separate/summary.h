// The report tonwerk-separate prints when it has written the stems.
#pragma once

#include "options.h"
#include "stem_output.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tonwerk::tools {

struct RunFacts {
    std::string inputPath;
    double inputSeconds;
    int sampleRate;
    int channels;
    std::string outDir;
    SampleFormat format;
    double wallSeconds;  // the whole run, model loading included
};

void printSummary(std::ostream& out, const RunFacts& facts, const std::vector<std::unique_ptr<StemOutput>>& stems);

}  // namespace tonwerk::tools
