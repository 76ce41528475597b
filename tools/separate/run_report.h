// What a run did, input by input: the facts both summaries are printed from.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tonwerk::tools {

struct StemReport {
    std::string name;
    std::string file;
    double rmsDbfs;               // -infinity for silence
    float peak;
    bool hasReference;
    std::optional<double> sdrDb;  // empty: no reference, or a silent one; +infinity: exact
    std::size_t clippedSamples;
};

struct InputReport {
    std::string input;
    bool skipped = false;  // its stems existed (--skip-existing)
    double seconds = 0;
    int sampleRate = 0;
    int channels = 0;
    std::string outputFolder;  // the folder all its stem files are in
    std::string format;        // e.g. "24-bit FLAC"
    double wallSeconds = 0;    // the first input's includes loading the model
    std::vector<StemReport> stems;
};

// The report of an input whose stems all existed.
inline InputReport skippedInput(const std::string& input) {
    InputReport report;
    report.input = input;
    report.skipped = true;
    return report;
}

struct RunReport {
    std::string model;
    std::vector<InputReport> inputs;
    double wallSeconds = 0;  // the whole run
};

// The table of one separated input, as printed after it is written.
void printInputSummary(std::ostream& out, const InputReport& input);
// The closing line of a run over several inputs.
void printRunTotals(std::ostream& out, const RunReport& run);
// The whole run as one JSON object, ending in a newline.
std::string runReportJson(const RunReport& run);
// One input as one JSON object (no newline), as in the run's "inputs".
std::string inputReportJson(const InputReport& input);
// An input that failed, with why: {"input": ..., "error": ...}.
std::string failedInputJson(const std::string& input, const std::string& reason);

}  // namespace tonwerk::tools
