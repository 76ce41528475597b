#include "separate_command.h"

#include "audio_input.h"
#include "model_loader.h"
#include "output_folder.h"
#include "progress_bar.h"
#include "separation.h"
#include "stem_output.h"
#include "stems.h"
#include "summary.h"
#include "tool_error.h"

#include <tonwerk/tonwerk_proc_multistem.h>

#include <array>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

using References = std::array<std::unique_ptr<AudioInput>, stemNames.size()>;

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

// DIR/<stem>.wav for every stem that has one; each must match the output's
// rate and channel count, since the comparison is sample by sample.
References openReferences(const std::string& dir, int sampleRate, int channels) {
    References references;
    if (dir.empty()) return references;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw inputError("reference folder " + dir + ": no such folder");
    bool any = false;
    for (std::size_t i = 0; i < stemNames.size(); ++i) {
        const fs::path path = fs::path(dir) / (stemNames[i] + ".wav");
        if (!fs::exists(path, ec)) continue;
        auto reference = std::make_unique<AudioInput>(path.string());
        if (reference->sampleRate() != sampleRate || reference->channels() != channels) {
            throw inputError("reference " + path.string() + " has " + std::to_string(reference->sampleRate()) +
                             " Hz and " + std::to_string(reference->channels()) + " channel(s), the stems have " +
                             std::to_string(sampleRate) + " Hz and " + std::to_string(channels));
        }
        references[i] = std::move(reference);
        any = true;
    }
    if (!any) throw inputError("reference folder " + dir + " holds no <stem>.wav file (vocals.wav, drum.wav, ...)");
    return references;
}

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

}  // namespace

int runSeparateCommand(const SeparateOptions& options, std::chrono::steady_clock::time_point started) {
    AudioInput input(options.input);
    if (input.channels() > 2) {
        throw inputError(input.path() + " has " + std::to_string(input.channels()) +
                         " channels; only mono and stereo input can be separated");
    }
    const SampleFormat format = options.format.value_or(input.matchingFormat());
    References references = openReferences(options.referenceDir, input.sampleRate(), input.channels());

    // Output files exist (under temporary names) before the model loads, so
    // an unwritable folder fails fast; every failure below removes them.
    OutputFolder folder(options.outDir);
    const StemTarget target{input.sampleRate(), input.channels(), input.frames(), format};
    const std::string baseName = fs::path(options.input).stem().string();
    std::vector<std::unique_ptr<StemOutput>> stems;
    for (std::size_t i = 0; i < stemNames.size(); ++i) {
        const fs::path path = folder.path() / (baseName + "." + stemNames[i] + ".wav");
        stems.push_back(std::make_unique<StemOutput>(stemNames[i], path, target, std::move(references[i])));
    }

    const std::string modelPath = options.modelPath.empty() ? defaultModelPath() : options.modelPath;
    const std::shared_ptr<InferenceContext> context = loadCheckedModel(modelPath, options.key);
    TonwerkProc processor(context, makeConfig(options.stems));
    if (options.blockFrames > processor.maxInputSize()) {
        throw usageError("--block may be at most " + std::to_string(processor.maxInputSize()) + " frames");
    }

    const double inputSeconds = static_cast<double>(input.frames()) / input.sampleRate();
    {
        ProgressBar progress(std::cerr, ::isatty(STDERR_FILENO) == 1, inputSeconds);
        runSeparation(input, processor, options.blockFrames, stems, progress);
    }
    commitAll(stems);
    folder.keep();

    const double wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const RunFacts facts{options.input, inputSeconds, input.sampleRate(), input.channels(),
                         folder.path().string(), format, wallSeconds};
    printSummary(std::cout, facts, stems);
    return exitOk;
}

}  // namespace tonwerk::tools
