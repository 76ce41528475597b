#include "output_plan.h"

#include "audio_files.h"
#include "audio_input.h"
#include "tool_error.h"

#include <algorithm>
#include <map>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

struct InputFiles {
    std::vector<fs::path> files;
    bool several = false;  // more than one file, or a folder: one output folder each by default
};

InputFiles expandInputs(const std::vector<std::string>& inputs) {
    InputFiles expanded;
    std::error_code ec;
    for (const std::string& input : inputs) {
        if (!fs::is_directory(input, ec)) {
            expanded.files.emplace_back(input);
            continue;
        }
        const std::vector<fs::path> files = audioFilesIn(input);
        if (files.empty()) throw inputError(input + ": the folder holds no audio files");
        expanded.files.insert(expanded.files.end(), files.begin(), files.end());
        expanded.several = true;
    }
    expanded.several = expanded.several || expanded.files.size() > 1;
    return expanded;
}

void checkPattern(const std::string& pattern, bool severalInputs) {
    if (pattern.find("{stem}") == std::string::npos) throw usageError("--name must contain {stem}");
    if (severalInputs && pattern.find("{input}") == std::string::npos) {
        throw usageError("--name must contain {input} when there are several inputs");
    }
    for (std::size_t open = pattern.find('{'); open != std::string::npos; open = pattern.find('{', open + 1)) {
        if (pattern.compare(open, 7, "{input}") != 0 && pattern.compare(open, 6, "{stem}") != 0) {
            throw usageError("--name knows only {input} and {stem}, not '" + pattern.substr(open) + "'");
        }
    }
    const fs::path path(pattern);
    if (path.is_absolute()) throw usageError("--name is a name under OUTDIR, not an absolute path");
    for (const fs::path& part : path) {
        if (part == "..") throw usageError("--name must stay inside OUTDIR (no '..')");
    }
    if (pattern.back() == '/') throw usageError("--name must end in a file name");
}

std::string substitute(std::string pattern, const std::string& input, const std::string& stem) {
    for (const auto& [key, value] : {std::pair<std::string, std::string>{"{input}", input}, {"{stem}", stem}}) {
        for (std::size_t at = pattern.find(key); at != std::string::npos; at = pattern.find(key, at + value.size())) {
            pattern.replace(at, key.size(), value);
        }
    }
    return pattern;
}

InputPlan planInput(const fs::path& file, const SeparateOptions& options, const std::string& pattern,
                    const std::optional<Container>& patternContainer) {
    const AudioInput input(file.string());
    if (input.channels() > 2) {
        throw inputError(input.path() + " has " + std::to_string(input.channels()) +
                         " channels; only mono and stereo input can be separated");
    }
    InputPlan plan;
    plan.input = file.string();
    plan.format = resolveOutputFormat(options.format, patternContainer, input.fileFormat());
    checkWritable(plan.format, input.sampleRate(), input.channels());
    const OutputSelection written = writtenStems(options);
    const std::string extension = patternContainer ? "" : extensionOf(plan.format.container);
    for (std::size_t i = 0; i < stemNames.size(); ++i) {
        if (!written[i]) continue;
        plan.outputs[i] = (fs::path(options.outDir) / (substitute(pattern, file.stem().string(), stemNames[i]) +
                                                       extension)).lexically_normal();
    }
    return plan;
}

// No two stems, and no stem and an input, may share a file.
void checkDistinct(const std::vector<InputPlan>& plans) {
    std::map<fs::path, std::string> owners;
    for (const InputPlan& plan : plans) {
        std::error_code ec;
        owners.emplace(fs::weakly_canonical(plan.input, ec), "input " + plan.input);
    }
    for (const InputPlan& plan : plans) {
        for (std::size_t i = 0; i < stemNames.size(); ++i) {
            if (plan.outputs[i].empty()) continue;
            std::error_code ec;
            const std::string owner = "the " + stemNames[i] + " stem of " + plan.input;
            const auto [at, added] = owners.emplace(fs::weakly_canonical(plan.outputs[i], ec), owner);
            if (!added) {
                throw usageError(plan.outputs[i].string() + " would hold both " + at->second + " and " + owner +
                                 "; choose a --name that tells them apart");
            }
        }
    }
}

void applyExistingPolicy(std::vector<InputPlan>& plans, ExistingOutputs policy) {
    if (policy == ExistingOutputs::overwrite) return;
    for (InputPlan& plan : plans) {
        std::vector<fs::path> existing;
        for (fs::path& output : plan.outputs) {
            std::error_code ec;
            if (output.empty() || !fs::exists(output, ec)) continue;
            existing.push_back(output);
            if (policy == ExistingOutputs::skip) output.clear();
        }
        if (policy == ExistingOutputs::skip) {
            plan.skip = std::all_of(plan.outputs.begin(), plan.outputs.end(),
                                    [](const fs::path& output) { return output.empty(); });
        } else if (!existing.empty()) {
            const std::string more =
                existing.size() > 1 ? " (and " + std::to_string(existing.size() - 1) + " more)" : "";
            throw inputError(existing.front().string() + " exists" + more +
                             "; use --overwrite to replace or --skip-existing to keep existing stems");
        }
    }
}

}  // namespace

std::vector<InputPlan> planRun(const SeparateOptions& options) {
    const InputFiles inputs = expandInputs(options.inputs);
    if (inputs.several && !options.referenceDir.empty()) {
        throw usageError("--reference-dir holds the parts of one song: give one INPUT file with it");
    }
    const std::string pattern =
        options.namePattern.empty() ? (inputs.several ? "{input}/{stem}" : "{input}.{stem}") : options.namePattern;
    checkPattern(pattern, inputs.several);
    const std::optional<Container> patternContainer = containerOfExtension(fs::path(pattern).extension().string());

    std::vector<InputPlan> plans;
    for (const fs::path& file : inputs.files) plans.push_back(planInput(file, options, pattern, patternContainer));
    checkDistinct(plans);
    applyExistingPolicy(plans, options.existing);
    return plans;
}

}  // namespace tonwerk::tools
