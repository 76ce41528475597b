// tonwerk-example: the smallest complete host of the library, built for Linux
// and Windows alike. It reads raw 32-bit float stereo (interleaved, 44100 Hz,
// the machine's byte order), streams it through one processor and writes one
// raw file per stem in the same format.
//
//   tonwerk-example MODEL INPUT.f32 OUTDIR [--block FRAMES] [--key KEY]
#include "tonwerk/tonwerk_proc_multistem.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

const char* const kStemNames[] = {"vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass",
                                  "residual", "mix"};

struct Options {
    std::string model, input, outDir, key;
    std::size_t block = 4096;
};

std::vector<char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void appendFile(const std::string& path, const std::vector<float>& samples) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(samples.data()), static_cast<std::streamsize>(samples.size() * sizeof(float)));
    if (!out) throw std::runtime_error("cannot write " + path);
}

bool readCount(const std::string& text, std::size_t& count) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9) return false;
    count = std::stoul(text);
    return count > 0;
}

bool parse(int argc, char** argv, Options& options) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--block" || arg == "--key") && i + 1 < argc) {
            if (arg == "--key") options.key = argv[++i];
            else if (!readCount(argv[++i], options.block)) return false;
        } else if (arg.rfind("--", 0) == 0) {
            return false;
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 3) return false;
    options.model = positional[0];
    options.input = positional[1];
    options.outDir = positional[2];
    return true;
}

void separate(const Options& options) {
    const std::vector<char> model = readFile(options.model);
    auto context = std::make_shared<tonwerk::InferenceContext>(tonwerk::ModelData{
        reinterpret_cast<const unsigned char*>(model.data()), model.size(), options.key});
    tonwerk::TonwerkProcConfig config{};
    config.vocals = config.drum = config.piano = config.acousticGuitar = config.electricGuitar = config.bass = 1;
    config.channels = 2;
    config.interleaved = true;
    tonwerk::TonwerkProc processor(context, config);

    const std::vector<char> bytes = readFile(options.input);
    const std::size_t frames = bytes.size() / (2 * sizeof(float));
    const auto* input = reinterpret_cast<const float*>(bytes.data());
    for (const char* stem : kStemNames) std::ofstream(options.outDir + "/" + stem + ".f32", std::ios::binary);

    // Host-sized blocks; the last one, possibly empty, flushes the stream.
    std::vector<float> block;
    std::size_t start = 0;
    do {
        const std::size_t end = std::min(frames, start + options.block);
        block.assign(input + 2 * start, input + 2 * end);
        const auto stems = processor.process(block, end == frames);
        for (std::size_t i = 0; i < stems.size(); ++i) appendFile(options.outDir + "/" + kStemNames[i] + ".f32", stems[i]);
        start = end;
    } while (start < frames);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: tonwerk-example MODEL INPUT.f32 OUTDIR [--block FRAMES] [--key KEY]\n");
        return 2;
    }
    try {
        separate(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonwerk-example: %s\n", e.what());
        return 3;
    }
    return 0;
}
