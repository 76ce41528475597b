// The usage example of tonwerk/tonwerk_proc_multistem.h as a whole program:
// raw 32-bit float interleaved stereo at 44100 Hz in (the machine's byte
// order), one raw file per stem out, each as long as the input.
//
//   tonwerk-example MODEL INPUT.f32 OUTDIR [BLOCK_FRAMES]
//
// Exit status: 0 done, 2 usage error, 3 any other error.
#include "tonwerk/tonwerk_proc_multistem.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

static std::vector<char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

static void separate(const std::string& modelPath, const std::string& inputPath, const std::string& outDir,
                     std::size_t block) {
    const std::vector<char> model = readFile(modelPath);
    auto context = std::make_shared<tonwerk::InferenceContext>(
        tonwerk::ModelData{reinterpret_cast<const unsigned char*>(model.data()), model.size(), ""});
    tonwerk::TonwerkProcConfig config{};
    config.vocals = config.drum = config.piano = 1;
    config.acousticGuitar = config.electricGuitar = config.bass = 1;
    config.channels = 2;
    config.interleaved = true;
    tonwerk::TonwerkProc proc(context, config);

    const std::vector<char> raw = readFile(inputPath);
    const auto* samples = reinterpret_cast<const float*>(raw.data());
    const std::size_t frames = raw.size() / (2 * sizeof(float));
    std::vector<std::ofstream> files;
    for (const char* stem : {"vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass", "residual", "mix"}) {
        files.emplace_back(outDir + "/" + stem + ".f32", std::ios::binary);
        if (!files.back()) throw std::runtime_error("cannot write " + outDir + "/" + stem + ".f32");
    }
    // Blocks of `block` frames, the last one with eof (an empty input still gets its one eof call).
    for (std::size_t at = 0, n = 0; at < frames || n == 0; at += n) {
        n = std::max<std::size_t>(1, std::min(block, frames - at));
        const std::vector<float> input(samples + 2 * at, samples + 2 * std::min(frames, at + n));
        const auto stems = proc.process(input, at + n >= frames);
        for (std::size_t i = 0; i < stems.size(); ++i) {
            files[i].write(reinterpret_cast<const char*>(stems[i].data()), std::streamsize(stems[i].size() * sizeof(float)));
        }
    }
    for (auto& file : files) {
        if (!file.flush()) throw std::runtime_error("cannot write the stems into " + outDir);
    }
}

int main(int argc, char** argv) {
    char* end = nullptr;
    const long block = argc == 5 ? std::strtol(argv[4], &end, 10) : 4096;
    if ((argc != 4 && argc != 5) || (end != nullptr && *end != '\0') || block <= 0 || block > 100000000) {
        std::fprintf(stderr, "usage: tonwerk-example MODEL INPUT.f32 OUTDIR [BLOCK_FRAMES]\n");
        return 2;
    }
    try {
        separate(argv[1], argv[2], argv[3], static_cast<std::size_t>(block));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonwerk-example: %s\n", e.what());
        return 3;
    }
    return 0;
}
