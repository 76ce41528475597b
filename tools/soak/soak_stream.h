// One host stream through the identity model, planned at random: its length,
// layout, stems and every block size, ending with eof. Every frame that comes
// back is checked against the frame that went in: the vocals give back the
// input (or are silent when not asked for), the other five stems are silent,
// and residual + mix restore the input.
#pragma once

#include "tones.h"

#include "tonwerk/tonwerk_proc_multistem.h"

#include <array>
#include <cstddef>
#include <deque>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk::soak {

// An output frame that is not what went in.
class Mismatch : public std::runtime_error {
public:
    explicit Mismatch(const std::string& what) : std::runtime_error(what) {}
};

struct StreamCounts {
    std::size_t frames = 0;
    std::size_t calls = 0;
};

class SoakStream {
public:
    // Plans a stream of at most maxFrames frames. The processor shares
    // `context`, which the caller may drop at once.
    SoakStream(std::shared_ptr<InferenceContext> context, std::size_t maxFrames, std::mt19937_64& random);

    // Streams the next block; returns false once the stream has ended and
    // every frame has been checked. Throws Mismatch, or what process() throws.
    bool step(std::mt19937_64& random);

    const StreamCounts& counts() const { return counts_; }
    std::string describe() const;

private:
    std::size_t nextBlockFrames(std::mt19937_64& random);
    void hostBlock(std::size_t frames);
    void check(const std::vector<std::vector<float>>& result);
    void checkFrame(std::size_t frame, const std::array<float, 2>& in,
                    const std::array<std::array<float, 2>, 8>& out) const;

    std::size_t length;
    bool interleaved;
    unsigned stems;
    TonwerkProc proc;
    Tones tones;
    std::size_t sent = 0;
    std::size_t singleFramesLeft = 0;  // a run of one-frame blocks in progress
    std::deque<std::array<float, 2>> pending;  // input frames whose output has not come back yet
    std::size_t returned = 0;
    std::vector<float> block;
    StreamCounts counts_;
};

}  // namespace tonwerk::soak
