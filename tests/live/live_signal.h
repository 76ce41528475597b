// Input and output buffers for the live tests: a reproducible stereo signal
// and eight interleaved output streams.
#pragma once

#include "identity_stream_check.h"
#include "tonwerk/tonwerk_live.h"

#include <array>
#include <cstddef>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>
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

#if defined(__linux__)
// Threads this process runs now: ONNX Runtime's helpers show which model
// sessions exist and how many threads they were given.
inline std::size_t threadsOfThisProcess() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                                  std::filesystem::directory_iterator()));
}

// A joined thread leaves the task list a moment after its join returns:
// where threads have just ended, the count settles at `expected` on a
// healthy tree, at whatever pace; the last count, after at most 10 s.
inline std::size_t threadsSettlingAt(std::size_t expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::size_t count = threadsOfThisProcess();
    while (count != expected && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        count = threadsOfThisProcess();
    }
    return count;
}
#endif

}  // namespace tonwerk::test
