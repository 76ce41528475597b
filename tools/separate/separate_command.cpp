#include "separate_command.h"

#include "audio_input.h"
#include "console.h"
#include "execution_provider.h"
#include "file_bytes.h"
#include "interrupt.h"
#include "model_loader.h"
#include "output_folders.h"
#include "output_plan.h"
#include "progress_bar.h"
#include "references.h"
#include "run_report.h"
#include "separation.h"
#include "stem_output.h"
#include "stems.h"
#include "tool_error.h"

#include <tonwerk/tonwerk_proc_multistem.h>

#include <filesystem>
#include <iostream>
#include <new>
#include <set>

namespace tonwerk::tools {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

TonwerkProcConfig makeConfig(const StemSelection& stems) {
    TonwerkProcConfig config{};
    config.vocals = stems[0];
    config.drum = stems[1];
    config.piano = stems[2];
    config.acousticGuitar = stems[3];
    config.electricGuitar = stems[4];
    config.bass = stems[5];
    config.channels = 2;
    config.interleaved = true;
    return config;
}

// Loaded when the first input has its outputs open, so that an unwritable
// folder fails before the slow part; then shared by every input.
class ModelOnce {
public:
    ModelOnce(const SeparateOptions& options, Console& console) : options_(options), console_(console) {}

    std::shared_ptr<InferenceContext> get() {
        if (context_) return context_;
        try {
            context_ = loadCheckedModel(path(), options_.key);
        } catch (...) {
            console_.passOnCaptured();
            throw;
        }
        reportLoad(console_.takeCaptured());
        return context_;
    }

    std::string path() const { return resolveModelPath(options_.modelPath); }

private:
    // Loading tries the GPU providers, and on a machine without one the
    // runtime and the library say so at length; one plain line is enough
    // unless --verbose asks for all of it.
    void reportLoad(const std::string& log) {
        if (options_.verbosity == Verbosity::verbose) {
            console_.err() << (console_.errIsTerminal() ? log : withoutEscapes(log));
            return;
        }
        if (options_.verbosity == Verbosity::quiet) return;
        const std::string provider = describeExecutionProvider(loadedRuntimeProviders(), log);
        if (!provider.empty()) console_.err() << "tonwerk-separate: " << provider << '\n';
    }

    const SeparateOptions& options_;
    Console& console_;
    std::shared_ptr<InferenceContext> context_;
};

// All or nothing: a failed rename takes back the files already renamed.
void commitAll(std::vector<std::unique_ptr<StemOutput>>& stems) {
    std::size_t committed = 0;
    try {
        for (; committed < stems.size(); ++committed) stems[committed]->file().commit();
    } catch (...) {
        for (std::size_t i = 0; i < committed; ++i) stems[i]->file().remove();
        throw;
    }
}

std::vector<fs::path> foldersOf(const InputPlan& plan) {
    std::set<fs::path> folders;
    for (const fs::path& output : plan.outputs) {
        if (!output.empty()) folders.insert(output.parent_path().empty() ? fs::path(".") : output.parent_path());
    }
    return {folders.begin(), folders.end()};
}

// The deepest folder holding every one of `folders`.
std::string commonFolder(const std::vector<fs::path>& folders) {
    fs::path common = folders.front();
    for (const fs::path& folder : folders) {
        fs::path shared;
        auto a = common.begin();
        for (auto b = folder.begin(); a != common.end() && b != folder.end() && *a == *b; ++a, ++b) shared /= *a;
        common = shared;
    }
    return common.empty() ? "." : common.string();
}

std::string progressLabel(const InputPlan& plan, std::size_t index, std::size_t count) {
    if (count == 1) return {};
    // Short enough for the whole line to fit 80 columns; cut between characters.
    std::string name = fs::path(plan.input).filename().string();
    if (name.size() > 16) {
        std::size_t cut = 13;
        while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
        name = name.substr(0, cut) + "...";
    }
    return "[" + std::to_string(index + 1) + "/" + std::to_string(count) + "] " + name + " ";
}

InputReport reportOf(const InputPlan& plan, const AudioInput& input, const std::vector<fs::path>& folders,
                     const std::vector<std::unique_ptr<StemOutput>>& stems) {
    InputReport report;
    report.input = plan.input;
    report.seconds = static_cast<double>(input.frames()) / input.sampleRate();
    report.sampleRate = input.sampleRate();
    report.channels = input.channels();
    report.outputFolder = commonFolder(folders);
    report.format = describe(plan.format);
    for (const auto& stem : stems) {
        report.stems.push_back({stemNames[stem->stem()], stem->file().finalPath().string(), stem->stats().rmsDbfs(),
                                stem->stats().peak(), stem->hasReference(), stem->sdrDb(), stem->file().clipped()});
    }
    return report;
}

InputReport separateInput(const InputPlan& plan, const SeparateOptions& options, ModelOnce& model, Console& console,
                          const std::string& progressText) {
    AudioInput input(plan.input);
    References references =
        openReferences(options.referenceDir, input.sampleRate(), input.channels(), input.frames());

    // The stem files exist (under temporary names) before the model loads,
    // so an unwritable folder fails fast; every failure below removes them.
    const std::vector<fs::path> folderList = foldersOf(plan);
    OutputFolders folders(folderList);
    const StemTarget target{input.sampleRate(), input.channels(), input.frames(), plan.format, options.dither};
    std::vector<std::unique_ptr<StemOutput>> stems;
    for (std::size_t i = 0; i < stemNames.size(); ++i) {
        if (!plan.outputs[i].empty()) {
            stems.push_back(std::make_unique<StemOutput>(i, plan.outputs[i], target, std::move(references[i])));
        }
    }

    TonwerkProc processor(model.get(), makeConfig(options.stems));
    if (options.blockFrames > processor.maxInputSize()) {
        throw usageError("--block may be at most " + std::to_string(processor.maxInputSize()) + " frames");
    }
    const double seconds = static_cast<double>(input.frames()) / input.sampleRate();
    ProgressBar progress(console.err(), console.errIsTerminal() && options.verbosity != Verbosity::quiet, seconds,
                         progressText);
    runSeparation(input, processor, options.blockFrames, options.stems, stems, progress, console);
    progress.complete();
    commitAll(stems);
    folders.keep();
    return reportOf(plan, input, folderList, stems);
}

// A summary nobody received is a failure (a full disk, a closed pipe).
void checkWritten(std::ostream& out) {
    if (!(out << std::flush)) throw inputError("cannot write the summary to standard output");
}

void writeJson(const std::string& path, const std::string& json, Console& console) {
    if (path == "-") {
        console.out() << json << std::flush;
        return;
    }
    const fs::path folder = fs::path(path).parent_path();
    std::error_code ec;
    if (!folder.empty()) fs::create_directories(folder, ec);
    writeFileBytes(path, std::vector<unsigned char>(json.begin(), json.end()));
}

// One request of a server: "INPUT" or "INPUT<tab>OUTDIR".
SeparateOptions requestOptions(const SeparateOptions& options, const std::string& line) {
    SeparateOptions request = options;
    const std::size_t tab = line.find('\t');
    request.inputs = {line.substr(0, tab)};
    if (tab != std::string::npos) request.outDir = line.substr(tab + 1);
    return request;
}

// The answer line for one request; every failure but an interruption is
// the input's own and is answered, so the server goes on with the next.
std::string serveRequest(const SeparateOptions& request, ModelOnce& model, Console& console) {
    const std::string& input = request.inputs.front();
    try {
        const Clock::time_point started = Clock::now();
        const std::vector<InputPlan> plans = planRun(request);
        if (plans.size() != 1) throw inputError(input + " is a folder: name its files one by one");
        InputReport report = skippedInput(input);
        if (!plans.front().skip) report = separateInput(plans.front(), request, model, console, {});
        report.wallSeconds = std::chrono::duration<double>(Clock::now() - started).count();
        return inputReportJson(report);
    } catch (const ToolError& error) {
        if (error.exitStatus() == exitInterrupted) throw;
        return failedInputJson(input, oneLine(error.what()));
    } catch (const std::bad_alloc&) {
        return failedInputJson(input, "out of memory");
    } catch (const std::exception& error) {
        return failedInputJson(input, oneLine(error.what()));
    }
}

}  // namespace

int runServeCommand(const SeparateOptions& options) {
    Console console;
    planRun(options);  // no inputs yet: checks --name and the like before the first request
    ModelOnce model(options, console);
    interruptWhenOrphaned();
    for (std::string line; std::getline(std::cin, line);) {
        throwIfInterrupted();
        console.out() << serveRequest(requestOptions(options, line), model, console) << '\n';
        checkWritten(console.out());
    }
    throwIfInterrupted();  // a signal ends the wait for a line as the end of input would
    return exitOk;
}

int runSeparateCommand(const SeparateOptions& options, Clock::time_point started) {
    const std::vector<InputPlan> plans = planRun(options);
    Console console;
    ModelOnce model(options, console);
    const bool textSummary = options.verbosity != Verbosity::quiet && options.jsonPath != "-";
    RunReport run{model.path(), {}, 0.0};
    bool separatedAny = false;
    for (std::size_t i = 0; i < plans.size(); ++i) {
        if (plans[i].skip) {
            if (options.verbosity != Verbosity::quiet) {
                console.err() << "tonwerk-separate: skipping " << plans[i].input << ": its stem files exist\n";
            }
            run.inputs.push_back(skippedInput(plans[i].input));
            continue;
        }
        // The first input's time includes loading the model, as a single run's always did.
        const Clock::time_point inputStarted = separatedAny ? Clock::now() : started;
        InputReport report =
            separateInput(plans[i], options, model, console, progressLabel(plans[i], i, plans.size()));
        report.wallSeconds = std::chrono::duration<double>(Clock::now() - inputStarted).count();
        if (textSummary) printInputSummary(console.out() << (separatedAny ? "\n" : ""), report);
        checkWritten(console.out());
        separatedAny = true;
        run.inputs.push_back(std::move(report));
    }
    run.wallSeconds = std::chrono::duration<double>(Clock::now() - started).count();
    if (textSummary && plans.size() > 1) printRunTotals(console.out(), run);
    if (!options.jsonPath.empty()) writeJson(options.jsonPath, runReportJson(run), console);
    checkWritten(console.out());
    return exitOk;
}

}  // namespace tonwerk::tools
