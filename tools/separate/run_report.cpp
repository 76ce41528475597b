#include "run_report.h"

#include "progress_bar.h"

#include <cmath>
#include <cstdio>

namespace tonwerk::tools {

namespace {

std::string formatSdr(const StemReport& stem) {
    if (!stem.hasReference) return "-";
    if (!stem.sdrDb) return "silent ref";
    if (std::isinf(*stem.sdrDb)) return "exact";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", *stem.sdrDb);
    return text;
}

std::string formatLevel(double dbfs) {
    if (std::isinf(dbfs)) return "silent";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", dbfs);
    return text;
}

double realTimeFactor(double audioSeconds, double wallSeconds) {
    return wallSeconds > 0 ? audioSeconds / wallSeconds : 0.0;
}

// Length of the well-formed UTF-8 sequence at `at`, or 0.
std::size_t utf8Length(const std::string& text, std::size_t at) {
    const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const std::size_t length = lead < 0x80           ? 1
                               : (lead >> 5) == 0x6  ? 2
                               : (lead >> 4) == 0xE  ? 3
                               : (lead >> 3) == 0x1E ? 4
                                                     : 0;
    if (length == 0 || at + length > text.size() || (length == 2 && lead < 0xC2)) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

// File names are bytes; JSON strings are Unicode, so a byte that is not
// part of valid UTF-8 becomes U+FFFD.
std::string jsonString(const std::string& text) {
    std::string quoted = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = utf8Length(text, at);
        if (length != 1) {
            quoted += length == 0 ? "\\ufffd" : text.substr(at, length);
            at += length == 0 ? 1 : length;
            continue;
        }
        const unsigned char c = static_cast<unsigned char>(text[at++]);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            quoted += escape;
        } else {
            quoted += static_cast<char>(c);
        }
    }
    return quoted + "\"";
}

// JSON has no infinities: those become null.
std::string jsonNumber(double value, const char* format = "%.4f") {
    if (!std::isfinite(value)) return "null";
    char text[48];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string stemJson(const StemReport& stem) {
    std::string json = jsonString(stem.name) + ":{\"file\":" + jsonString(stem.file) +
                       ",\"rms_dbfs\":" + jsonNumber(stem.rmsDbfs) +
                       ",\"peak\":" + jsonNumber(stem.peak, "%.6f") +
                       ",\"clipped_samples\":" + std::to_string(stem.clippedSamples);
    if (stem.hasReference) {
        json += ",\"sdr_db\":" + (stem.sdrDb ? jsonNumber(*stem.sdrDb) : "null");
        if (stem.sdrDb && std::isinf(*stem.sdrDb)) json += ",\"exact\":true";
    }
    return json + "}";
}

double audioSeconds(const RunReport& run) {
    double seconds = 0;
    for (const InputReport& input : run.inputs) seconds += input.skipped ? 0.0 : input.seconds;
    return seconds;
}

}  // namespace

std::string inputReportJson(const InputReport& input) {
    std::string json = "{\"input\":" + jsonString(input.input);
    if (input.skipped) return json + ",\"skipped\":true}";
    json += ",\"skipped\":false,\"seconds\":" + jsonNumber(input.seconds) +
            ",\"sample_rate\":" + std::to_string(input.sampleRate) +
            ",\"channels\":" + std::to_string(input.channels) +
            ",\"output_folder\":" + jsonString(input.outputFolder) + ",\"format\":" + jsonString(input.format) +
            ",\"wall_seconds\":" + jsonNumber(input.wallSeconds) +
            ",\"x_realtime\":" + jsonNumber(realTimeFactor(input.seconds, input.wallSeconds)) + ",\"stems\":{";
    for (std::size_t i = 0; i < input.stems.size(); ++i) json += (i == 0 ? "" : ",") + stemJson(input.stems[i]);
    return json + "}}";
}

std::string failedInputJson(const std::string& input, const std::string& reason) {
    return "{\"input\":" + jsonString(input) + ",\"error\":" + jsonString(reason) + "}";
}

void printInputSummary(std::ostream& out, const InputReport& input) {
    bool anyReference = false;
    for (const StemReport& stem : input.stems) anyReference = anyReference || stem.hasReference;

    out << input.input << ": " << formatDuration(input.seconds) << ", " << input.sampleRate << " Hz, "
        << (input.channels == 1 ? "mono" : "stereo") << " -> " << input.outputFolder << " (" << input.format << ")\n";
    char line[160];
    std::snprintf(line, sizeof line, "%-16s %9s %8s%s", "stem", "RMS dBFS", "peak", anyReference ? "     SDR dB" : "");
    out << line << '\n';
    for (const StemReport& stem : input.stems) {
        std::snprintf(line, sizeof line, "%-16s %9s %8.3f", stem.name.c_str(), formatLevel(stem.rmsDbfs).c_str(),
                      static_cast<double>(stem.peak));
        out << line;
        if (anyReference) {
            std::snprintf(line, sizeof line, " %10s", formatSdr(stem).c_str());
            out << line;
        }
        if (stem.clippedSamples > 0) out << "  (clipped)";
        out << '\n';
    }
    std::snprintf(line, sizeof line, "wall time %.2f s, %.2fx real time", input.wallSeconds,
                  realTimeFactor(input.seconds, input.wallSeconds));
    out << line << '\n';
}

void printRunTotals(std::ostream& out, const RunReport& run) {
    std::size_t skipped = 0;
    for (const InputReport& input : run.inputs) skipped += input.skipped;
    const double seconds = audioSeconds(run);
    char line[200];
    std::snprintf(line, sizeof line, "%zu inputs separated, %zu skipped: %s of audio in %.2f s, %.2fx real time",
                  run.inputs.size() - skipped, skipped, formatDuration(seconds).c_str(), run.wallSeconds,
                  realTimeFactor(seconds, run.wallSeconds));
    out << line << '\n';
}

std::string runReportJson(const RunReport& run) {
    std::string json = "{\"tool\":\"tonwerk-separate\",\"version\":" + jsonString(TONWERK_VERSION) +
                       ",\"model\":" + jsonString(run.model) + ",\"inputs\":[";
    for (std::size_t i = 0; i < run.inputs.size(); ++i) json += (i == 0 ? "" : ",") + inputReportJson(run.inputs[i]);
    const double seconds = audioSeconds(run);
    return json + "],\"audio_seconds\":" + jsonNumber(seconds) + ",\"wall_seconds\":" + jsonNumber(run.wallSeconds) +
           ",\"x_realtime\":" + jsonNumber(realTimeFactor(seconds, run.wallSeconds)) + "}\n";
}

}  // namespace tonwerk::tools
