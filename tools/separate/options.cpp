#include "options.h"

#include "tool_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tonwerk::tools {

const char* const separateUsage =
    "usage: tonwerk-separate INPUT [-o OUTDIR] [--model PATH] [--key KEY] [--stems LIST]\n"
    "                        [--block FRAMES] [--format float|pcm24|pcm16] [--reference-dir DIR]\n"
    "\n"
    "Separates INPUT (WAV, FLAC, OGG, AIFF; mono or stereo; any sample rate) into\n"
    "OUTDIR/<name>.<stem>.wav for vocals, drum, piano, acoustic_guitar, electric_guitar,\n"
    "bass, residual (what the six miss of the input) and mix (the six summed). Every\n"
    "file has the input's length, sample rate and channel count.\n"
    "\n"
    "  -o OUTDIR            output folder, created if missing (default: .)\n"
    "  --model PATH         separation model (default: models/tonwerk-dsp-baseline.onnx\n"
    "                       beside this program, or ../share/tonwerk/models/ once installed)\n"
    "  --key KEY            the model file is scrambled with KEY\n"
    "  --stems LIST         comma-separated stems to ask the model for (default: all six);\n"
    "                       the others are still written, silent\n"
    "  --block FRAMES       frames per call into the separator (default: 4096)\n"
    "  --format F           float, pcm24 or pcm16 (default: the input's 16 or 24 bits,\n"
    "                       float for anything else)\n"
    "  --reference-dir DIR  DIR/<stem>.wav hold the true parts: print each stem's SDR\n"
    "  -h, --help           this text\n"
    "\n"
    "exit status: 0 ok, 2 usage error, 3 input, model or output error\n";

namespace {

std::size_t parseBlock(const std::string& text) {
    const bool digitsOnly = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return c >= '0' && c <= '9';
    });
    errno = 0;
    const unsigned long long value = digitsOnly ? std::strtoull(text.c_str(), nullptr, 10) : 0;
    if (!digitsOnly || errno != 0 || value == 0) {
        throw usageError("--block needs a positive number of frames, not '" + text + "'");
    }
    return static_cast<std::size_t>(value);
}

SampleFormat parseFormat(const std::string& text) {
    if (text == "float") return SampleFormat::float32;
    if (text == "pcm24") return SampleFormat::pcm24;
    if (text == "pcm16") return SampleFormat::pcm16;
    throw usageError("--format must be float, pcm24 or pcm16, not '" + text + "'");
}

StemSelection parseStems(const std::string& text) {
    StemSelection selection{};
    std::size_t start = 0;
    bool any = false;
    while (start <= text.size()) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        const std::string name = text.substr(start, comma - start);
        const auto found = std::find(stemNames.begin(), stemNames.begin() + modelStemCount, name);
        if (found == stemNames.begin() + modelStemCount) {
            throw usageError("--stems: unknown stem '" + name +
                             "' (vocals, drum, piano, acoustic_guitar, electric_guitar, bass)");
        }
        selection[static_cast<std::size_t>(found - stemNames.begin())] = true;
        any = true;
        start = comma + 1;
    }
    if (!any) throw usageError("--stems needs at least one stem");
    return selection;
}

}  // namespace

SeparateOptions parseSeparateOptions(const std::vector<std::string>& args) {
    SeparateOptions options;
    std::vector<std::string> positional;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        if (optionsEnded || arg.empty() || arg[0] != '-' || arg == "-") {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            options.help = true;
            continue;
        }
        std::string value;
        bool hasInlineValue = false;
        const std::size_t equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = arg.substr(equals + 1);
            arg = arg.substr(0, equals);
            hasInlineValue = true;
        }
        static const char* const valued[] = {"-o", "--model", "--key", "--stems", "--block", "--format",
                                             "--reference-dir"};
        if (std::find(std::begin(valued), std::end(valued), arg) == std::end(valued)) {
            throw usageError("unknown option '" + arg + "'");
        }
        if (!hasInlineValue) {
            if (i + 1 >= args.size()) throw usageError(arg + " needs a value");
            value = args[++i];
        }
        if (arg == "-o") {
            if (value.empty()) throw usageError("-o needs a folder");
            options.outDir = value;
        } else if (arg == "--model") {
            if (value.empty()) throw usageError("--model needs a path");
            options.modelPath = value;
        } else if (arg == "--key") {
            if (value.empty()) throw usageError("--key must not be empty");
            options.key = value;
        } else if (arg == "--stems") {
            options.stems = parseStems(value);
        } else if (arg == "--block") {
            options.blockFrames = parseBlock(value);
        } else if (arg == "--format") {
            options.format = parseFormat(value);
        } else {
            if (value.empty()) throw usageError("--reference-dir needs a folder");
            options.referenceDir = value;
        }
    }
    if (options.help) return options;
    if (positional.empty()) throw usageError("no INPUT file given");
    if (positional.size() > 1) throw usageError("more than one INPUT given ('" + positional[1] + "')");
    options.input = positional[0];
    return options;
}

const char* sampleFormatName(SampleFormat format) {
    switch (format) {
    case SampleFormat::pcm16: return "16-bit PCM";
    case SampleFormat::pcm24: return "24-bit PCM";
    case SampleFormat::float32: break;
    }
    return "32-bit float";
}

}  // namespace tonwerk::tools
