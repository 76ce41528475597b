#include "summary.h"

#include "progress_bar.h"

#include <cmath>
#include <cstdio>

namespace tonwerk::tools {

namespace {

std::string formatSdr(const StemOutput& stem) {
    if (!stem.hasReference()) return "-";
    const std::optional<double> sdr = stem.sdrDb();
    if (!sdr) return "silent ref";
    if (std::isinf(*sdr)) return "exact";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", *sdr);
    return text;
}

std::string formatLevel(double dbfs) {
    if (std::isinf(dbfs)) return "silent";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", dbfs);
    return text;
}

}  // namespace

void printSummary(std::ostream& out, const RunFacts& facts, const std::vector<std::unique_ptr<StemOutput>>& stems) {
    bool anyReference = false;
    for (const auto& stem : stems) anyReference = anyReference || stem->hasReference();
    const bool integerFormat = facts.format != SampleFormat::float32;

    out << facts.inputPath << ": " << formatDuration(facts.inputSeconds) << ", " << facts.sampleRate << " Hz, "
        << (facts.channels == 1 ? "mono" : "stereo") << " -> " << facts.outDir << " (" << sampleFormatName(facts.format)
        << " WAV)\n";
    char line[160];
    std::snprintf(line, sizeof line, "%-16s %9s %8s%s", "stem", "RMS dBFS", "peak", anyReference ? "     SDR dB" : "");
    out << line << '\n';
    for (const auto& stem : stems) {
        const float peak = stem->stats().peak();
        std::snprintf(line, sizeof line, "%-16s %9s %8.3f", stem->name().c_str(),
                      formatLevel(stem->stats().rmsDbfs()).c_str(), static_cast<double>(peak));
        out << line;
        if (anyReference) {
            std::snprintf(line, sizeof line, " %10s", formatSdr(*stem).c_str());
            out << line;
        }
        if (integerFormat && peak > 1.0f) out << "  (clipped)";
        out << '\n';
    }
    std::snprintf(line, sizeof line, "wall time %.2f s, %.2fx real time", facts.wallSeconds,
                  facts.wallSeconds > 0 ? facts.inputSeconds / facts.wallSeconds : 0.0);
    out << line << '\n';
}

}  // namespace tonwerk::tools
