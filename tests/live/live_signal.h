// Input and output buffers for the live tests: a reproducible stereo signal
// and eight interleaved output streams.
#pragma once

#include "identity_stream_check.h"
#include "tonwerk/tonwerk_live.h"

#include <array>
#include <cstddef>
#include <vector>

namespace tonwerk::test {

// `frames` of the stream tests' stereo tones, starting at a point that
// depends on `seed`.
inline std::vector<float> tones(std::size_t frames, unsigned seed) {
    return toneBlock(std::size_t{seed} * 7919, frames);
}

// Every output of a stream, appended block by block.
struct OutputStreams {
    std::array<std::vector<float>, TW_OUTPUT_COUNT> streams;
    std::array<std::vector<float>, TW_OUTPUT_COUNT> block;
    std::array<float*, TW_OUTPUT_COUNT> pointers{};

    // Room for a block of `frames`; returns the pointers to hand over.
    float* const* prepare(std::size_t frames) {
        for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
            block[s].assign(2 * frames, -1.0F);  // never a value the library writes by chance
            pointers[s] = block[s].data();
        }
        return pointers.data();
    }
    void keep() {
        for (int s = 0; s < TW_OUTPUT_COUNT; ++s) streams[s].insert(streams[s].end(), block[s].begin(), block[s].end());
    }
    // Sample i of `output` (interleaved index), 0 for the time before the stream.
    float at(int output, long i) const { return i < 0 ? 0.0F : streams[output][static_cast<std::size_t>(i)]; }
};

}  // namespace tonwerk::test
