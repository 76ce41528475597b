#include "options.h"

#include "tool_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tonwerk::tools {

const char* const separateUsage =
    "usage: tonwerk-separate INPUT... [-o OUTDIR] [--name PATTERN] [--model MODEL] [--key KEY]\n"
    "                        [--stems LIST] [--stems-out LIST] [--format F] [--dither] [--block FRAMES]\n"
    "                        [--reference-dir DIR] [--skip-existing | --overwrite] [--json FILE|-]\n"
    "                        [--quiet | --verbose] [--version]\n"
    "       tonwerk-separate --serve [the options above but INPUT, --reference-dir and --json]\n"
    "\n"
    "Separates each INPUT (an audio file libsndfile reads: WAV, FLAC, Ogg, MP3, AIFF, ...; mono or\n"
    "stereo; any sample rate; or a folder, whose audio files are taken in name order) into vocals,\n"
    "drum, piano, acoustic_guitar, electric_guitar, bass, residual (what the six miss of the input)\n"
    "and mix (the six summed). Every stem has its input's length, sample rate and channel count.\n"
    "The model is loaded once for all inputs.\n"
    "\n"
    "  -o OUTDIR            output folder, created if missing (default: .)\n"
    "  --name PATTERN       stem file names under OUTDIR from {input} (the input's name without\n"
    "                       extension) and {stem}; default {input}.{stem} for one input file,\n"
    "                       {input}/{stem} otherwise; .wav/.flac/.ogg/.mp3 at the end sets the format\n"
    "  --model MODEL        separation model: a file, or the name of one that comes with this\n"
    "                       program (in models/ beside it, or ../share/tonwerk/models/ once\n"
    "                       installed), such as tonwerk-dsp-baseline; default: " TONWERK_DEFAULT_MODEL "\n"
    "  --key KEY            the model file is scrambled with KEY\n"
    "  --stems LIST         comma-separated stems to ask the model for (default: all six, or the\n"
    "                       model stems of --stems-out when that names neither residual nor mix)\n"
    "  --stems-out LIST     comma-separated stems to write, out of those asked for, residual and\n"
    "                       mix (default: all of them)\n"
    "  --format F           wav, flac, ogg or mp3 (container), pcm16, pcm24 or float (WAV\n"
    "                       resolution), flac16 or flac24; default: the input's resolution, FLAC\n"
    "                       for FLAC input, 24-bit FLAC for lossy input\n"
    "  --dither             add triangular dither before rounding to 16- or 24-bit stems\n"
    "  --block FRAMES       frames per call into the separator (default: 4096)\n"
    "  --reference-dir DIR  DIR/<stem>.<ext> (any case) hold the true parts of the one INPUT:\n"
    "                       print each stem's SDR\n"
    "  --skip-existing      skip inputs whose stem files all exist\n"
    "  --overwrite          replace existing stem files (default: refuse)\n"
    "  --json FILE          also write the summary as JSON to FILE ('-': standard output,\n"
    "                       instead of the text summary)\n"
    "  --part-tag TAG       stems are written as .NAME.part-TAG until they are complete (letters,\n"
    "                       digits, '.', '_' and '-'; default: HOST-PID-RANDOM)\n"
    "  -q, --quiet          print nothing but errors\n"
    "  -v, --verbose        also show everything the library and ONNX Runtime print\n"
    "  --serve              separate the inputs named on standard input, one line each (INPUT, or\n"
    "                       INPUT<tab>OUTDIR), with the model loaded once; each answer is one line\n"
    "                       of JSON on standard output, with \"error\" when that input failed\n"
    "  --version            print the version and exit\n"
    "  -h, --help           this text\n"
    "\n"
    "exit status: 0 ok, 2 usage error, 3 input, model or output error (a model that produces\n"
    "no output included), 130 interrupted\n";

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

// A comma-separated list of names out of the first `count` stems.
OutputSelection parseStemList(const std::string& option, const std::string& text, std::size_t count) {
    OutputSelection selection{};
    std::string known;
    for (std::size_t i = 0; i < count; ++i) known += (i == 0 ? "" : ", ") + stemNames[i];
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        const std::string name = text.substr(start, comma - start);
        const auto end = stemNames.begin() + static_cast<std::ptrdiff_t>(count);
        const auto found = std::find(stemNames.begin(), end, name);
        if (found == end) throw usageError(option + ": unknown stem '" + name + "' (" + known + ")");
        selection[static_cast<std::size_t>(found - stemNames.begin())] = true;
        start = comma + 1;
    }
    return selection;
}

StemSelection modelStemsOf(const OutputSelection& selection) {
    StemSelection stems{};
    std::copy(selection.begin(), selection.begin() + modelStemCount, stems.begin());
    return stems;
}

// A tag ends up in file names: nothing that leaves the folder or needs quoting.
std::string parsePartTag(const std::string& text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-';
    });
    if (!plain || text.size() > 100) {
        throw usageError("--part-tag takes up to 100 letters, digits, '.', '_' and '-', not '" + text + "'");
    }
    return text;
}

bool isFlag(const std::string& arg) {
    static const char* const flags[] = {"-h", "--help", "--version", "-q", "--quiet", "-v", "--verbose",
                                        "--dither", "--skip-existing", "--overwrite", "--serve"};
    return std::find(std::begin(flags), std::end(flags), arg) != std::end(flags);
}

void setFlag(SeparateOptions& options, const std::string& arg) {
    if (arg == "-h" || arg == "--help") options.help = true;
    else if (arg == "--version") options.version = true;
    else if (arg == "-q" || arg == "--quiet") options.verbosity = Verbosity::quiet;
    else if (arg == "-v" || arg == "--verbose") options.verbosity = Verbosity::verbose;
    else if (arg == "--dither") options.dither = true;
    else if (arg == "--serve") options.serve = true;
    else if (arg == "--skip-existing") options.existing = ExistingOutputs::skip;
    else options.existing = ExistingOutputs::overwrite;
}

void setValue(SeparateOptions& options, const std::string& arg, const std::string& value) {
    if (value.empty() && arg != "--stems" && arg != "--stems-out") throw usageError(arg + " needs a value");
    if (arg == "-o") options.outDir = value;
    else if (arg == "--name") options.namePattern = value;
    else if (arg == "--model") options.modelPath = value;
    else if (arg == "--key") options.key = value;
    else if (arg == "--stems") {
        options.stems = modelStemsOf(parseStemList(arg, value, modelStemCount));
        options.stemsGiven = true;
    } else if (arg == "--stems-out") options.stemsOut = parseStemList(arg, value, stemNames.size());
    else if (arg == "--block") options.blockFrames = parseBlock(value);
    else if (arg == "--format") options.format = parseFormatRequest(value);
    else if (arg == "--json") options.jsonPath = value;
    else if (arg == "--part-tag") options.partTag = parsePartTag(value);
    else options.referenceDir = value;
}

// Combinations that single options cannot rule out.
void checkCombinations(const SeparateOptions& options, int quietCount, int verboseCount, int existingCount) {
    if (quietCount > 0 && verboseCount > 0) throw usageError("--quiet and --verbose exclude each other");
    if (existingCount > 1) throw usageError("--skip-existing and --overwrite exclude each other");
    if (options.serve) {
        if (!options.inputs.empty()) {
            throw usageError("--serve reads its inputs from standard input, not from arguments");
        }
        if (!options.referenceDir.empty() || !options.jsonPath.empty()) {
            throw usageError("--serve answers each input on standard output: no --reference-dir or --json");
        }
    } else if (options.inputs.empty()) {
        throw usageError("no INPUT given");
    }
    for (std::size_t i = 0; options.stemsOut && i < modelStemCount; ++i) {
        if ((*options.stemsOut)[i] && !options.stems[i]) {
            throw usageError("--stems-out " + stemNames[i] + ": the model is not asked for it (see --stems)");
        }
    }
    if (options.dither && options.format && options.format->encoding == Encoding::float32) {
        throw usageError("--dither applies to 16- and 24-bit output, not to --format float");
    }
}

}  // namespace

SeparateOptions parseSeparateOptions(const std::vector<std::string>& args) {
    static const char* const valued[] = {"-o",      "--name",      "--model",  "--key",  "--stems",
                                         "--stems-out", "--block", "--format", "--json", "--reference-dir",
                                         "--part-tag"};
    SeparateOptions options;
    int quietCount = 0, verboseCount = 0, existingCount = 0;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        if (optionsEnded || arg.empty() || arg[0] != '-' || arg == "-") {
            options.inputs.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (isFlag(arg)) {
            setFlag(options, arg);
            quietCount += arg == "-q" || arg == "--quiet";
            verboseCount += arg == "-v" || arg == "--verbose";
            existingCount += arg == "--skip-existing" || arg == "--overwrite";
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
        if (std::find(std::begin(valued), std::end(valued), arg) == std::end(valued)) {
            throw usageError("unknown option '" + arg + "'");
        }
        if (!hasInlineValue) {
            if (i + 1 >= args.size()) throw usageError(arg + " needs a value");
            value = args[++i];
        }
        setValue(options, arg, value);
    }
    if (options.help || options.version) return options;
    // Writing only model stems: asking the model for the others changes no written sample.
    if (options.stemsOut && !options.stemsGiven && !(*options.stemsOut)[residualStem] &&
        !(*options.stemsOut)[mixStem]) {
        options.stems = modelStemsOf(*options.stemsOut);
    }
    checkCombinations(options, quietCount, verboseCount, existingCount);
    return options;
}

OutputSelection writtenStems(const SeparateOptions& options) {
    if (options.stemsOut) return *options.stemsOut;
    OutputSelection written{};
    std::copy(options.stems.begin(), options.stems.end(), written.begin());
    written[residualStem] = written[mixStem] = true;
    return written;
}

}  // namespace tonwerk::tools
