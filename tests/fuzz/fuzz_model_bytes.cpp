// libFuzzer target: arbitrary bytes, and an optional scrambling key, as a
// model. The first byte gives the key's length (0 to 8, modulo 9), the key
// follows, the rest is the model file. Any input must end in a
// std::exception from the context or in a working context, one whose
// processor streams a short block to its end (eight vectors as long as the
// block) or throws a std::exception; never a crash, hang or leak.
#include "common/stem_bits.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t keyLength = std::min<std::size_t>(data[0] % 9, size - 1);
    const std::string key(reinterpret_cast<const char*>(data + 1), keyLength);
    std::shared_ptr<tonwerk::InferenceContext> context;
    try {
        context = std::make_shared<tonwerk::InferenceContext>(
            tonwerk::ModelData{data + 1 + keyLength, size - 1 - keyLength, key});
    } catch (const std::exception&) {
        return 0;
    }
    std::vector<float> block(2 * 3000);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<float>(i % 200) / 400.0F - 0.25F;
    std::vector<std::vector<float>> stems;
    try {
        tonwerk::TonwerkProc proc(context, tonwerk::tools::configForStemBits(tonwerk::tools::kAllStemBits, true));
        stems = proc.process(block, true);
    } catch (const std::exception&) {
        return 0;  // a model that loads but cannot run (wrong shapes, failing operators)
    }
    const bool whole = stems.size() == 8 && std::all_of(stems.begin(), stems.end(), [&](const auto& stem) {
        return stem.size() == block.size();
    });
    if (!whole) {
        std::fprintf(stderr, "model bytes: a loaded model streamed %zu vectors, not eight of %zu floats\n",
                     stems.size(), block.size());
        std::abort();
    }
    return 0;
}
