// libFuzzer target: arbitrary bytes, and an optional scrambling key, as a
// model. The first byte gives the key's length (0 to 8, modulo 9), the key
// follows, the rest is the model file. Any input must end in a
// std::exception from the context or in a working context, one whose
// processor streams a short block to its end (eight vectors as long as the
// block) or throws a std::exception; never a crash, hang or leak.
#include "tonwerk/tonwerk_proc_multistem.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kFrames = 3000;

void streamOnce(const std::shared_ptr<tonwerk::InferenceContext>& context) {
    tonwerk::TonwerkProcConfig config{};
    config.vocals = config.drum = config.piano = config.acousticGuitar = config.electricGuitar = config.bass = 1;
    config.channels = 2;
    config.interleaved = true;
    tonwerk::TonwerkProc proc(context, config);
    std::vector<float> block(2 * kFrames);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<float>(i % 200) / 400.0F - 0.25F;
    const auto stems = proc.process(block, true);
    if (stems.size() != 8) {
        std::fprintf(stderr, "model bytes: a loaded model streamed %zu vectors\n", stems.size());
        std::abort();
    }
    for (const auto& stem : stems) {
        if (stem.size() != block.size()) {
            std::fprintf(stderr, "model bytes: a stem of %zu floats for %zu\n", stem.size(), block.size());
            std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t keyLength = std::min<std::size_t>(data[0] % 9, size - 1);
    const std::string key(reinterpret_cast<const char*>(data + 1), keyLength);
    const std::uint8_t* model = data + 1 + keyLength;
    std::shared_ptr<tonwerk::InferenceContext> context;
    try {
        context = std::make_shared<tonwerk::InferenceContext>(
            tonwerk::ModelData{model, size - 1 - keyLength, key});
    } catch (const std::exception&) {
        return 0;
    }
    try {
        streamOnce(context);
    } catch (const std::exception&) {
        // A model that loads but cannot run (wrong shapes, failing operators).
    }
    return 0;
}
