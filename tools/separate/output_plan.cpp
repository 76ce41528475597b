#include "output_plan.h"

#include "audio_files.h"
#include "audio_input.h"
#include "tool_error.h"

#include <algorithm>
#include <map>
#include <unistd.h>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

struct InputFiles {
    std::vector<fs::path> files;
    bool several = false;  // more than one file, or a folder: one output folder each by default
};

// A server's inputs are each one of many, named as several inputs' are.
InputFiles expandInputs(const std::vector<std::string>& inputs, bool serving) {
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
    expanded.several = serving || expanded.several || expanded.files.size() > 1;
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

// One pass, so that an input named "a {stem}" stays "a {stem}".
std::string substitute(const std::string& pattern, const std::string& input, const std::string& stem) {
    std::string name;
    for (std::size_t at = 0; at < pattern.size();) {
        if (pattern.compare(at, 7, "{input}") == 0) {
            name += input;
            at += 7;
        } else if (pattern.compare(at, 6, "{stem}") == 0) {
            name += stem;
            at += 6;
        } else {
            name += pattern[at++];
        }
    }
    return name;
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

// No two stems may share a file, nor a stem or the JSON summary an input
// or a reference.
void checkDistinct(const std::vector<InputPlan>& plans, const SeparateOptions& options) {
    std::map<fs::path, std::string> owners;
    const auto claim = [&owners](const fs::path& path, const std::string& owner) {
        std::error_code ec;
        const auto [at, added] = owners.emplace(fs::weakly_canonical(path, ec), owner);
        return added ? std::string() : at->second;
    };
    for (const InputPlan& plan : plans) claim(plan.input, "input " + plan.input);
    std::error_code ec;
    if (!options.referenceDir.empty() && fs::is_directory(options.referenceDir, ec)) {
        for (const fs::path& file : audioFilesIn(options.referenceDir)) claim(file, "reference " + file.string());
    }
    for (const InputPlan& plan : plans) {
        for (std::size_t i = 0; i < stemNames.size(); ++i) {
            if (plan.outputs[i].empty()) continue;
            const std::string owner = "the " + stemNames[i] + " stem of " + plan.input;
            const std::string other = claim(plan.outputs[i], owner);
            if (!other.empty()) {
                throw usageError(plan.outputs[i].string() + " would hold both " + other + " and " + owner +
                                 " (inputs of one name need separate runs with different -o; otherwise choose "
                                 "another -o or --name)");
            }
        }
    }
    if (!options.jsonPath.empty() && options.jsonPath != "-") {
        const std::string other = claim(options.jsonPath, "the JSON summary");
        if (!other.empty()) throw usageError("--json " + options.jsonPath + " is " + other);
    }
}

void applyExistingPolicy(std::vector<InputPlan>& plans, ExistingOutputs policy) {
    for (InputPlan& plan : plans) {
        std::vector<fs::path> existing;
        for (fs::path& output : plan.outputs) {
            std::error_code ec;
            if (output.empty() || !fs::exists(output, ec)) continue;
            if (fs::is_directory(output, ec)) throw inputError(output.string() + " is a folder, not a stem file");
            if (policy == ExistingOutputs::overwrite) continue;
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

// The summary comes last; its place must not turn out unwritable after all
// the work. Missing folders are created when it is written.
void checkJsonDestination(const std::string& path) {
    if (path.empty() || path == "-") return;
    std::error_code ec;
    if (fs::is_directory(path, ec)) throw inputError("cannot write the JSON summary " + path + ": it is a folder");
    fs::path level = fs::absolute(path).parent_path();
    while (!fs::exists(level, ec) && level != level.parent_path()) level = level.parent_path();
    if (!fs::is_directory(level, ec) || ::access(level.c_str(), W_OK) != 0) {
        throw inputError("cannot write the JSON summary " + path + ": " + level.string() + " is not a writable folder");
    }
}

std::vector<InputPlan> planRun(const SeparateOptions& options) {
    checkJsonDestination(options.jsonPath);
    const InputFiles inputs = expandInputs(options.inputs, options.serve);
    if (inputs.several && !options.referenceDir.empty()) {
        throw usageError("--reference-dir holds the parts of one song: give one INPUT file with it");
    }
    const std::string pattern =
        options.namePattern.empty() ? (inputs.several ? "{input}/{stem}" : "{input}.{stem}") : options.namePattern;
    checkPattern(pattern, inputs.several);
    const std::optional<Container> patternContainer = containerOfExtension(fs::path(pattern).extension().string());

    std::vector<InputPlan> plans;
    for (const fs::path& file : inputs.files) plans.push_back(planInput(file, options, pattern, patternContainer));
    checkDistinct(plans, options);
    applyExistingPolicy(plans, options.existing);
    return plans;
}

}  // namespace tonwerk::tools
