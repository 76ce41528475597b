// Streaming sample-rate conversion of interleaved float audio (libsoxr, high
// quality). Between equal rates it copies.
#pragma once

#include <cstddef>
#include <vector>

typedef struct soxr* soxr_t;

namespace tonwerk::tools {

class StreamResampler {
public:
    // Throws inputError when libsoxr refuses the rates.
    StreamResampler(double fromRate, double toRate, unsigned channels);
    ~StreamResampler();
    StreamResampler(const StreamResampler&) = delete;
    StreamResampler& operator=(const StreamResampler&) = delete;

    // Appends to `out` what `frames` more input frames produce.
    void push(const float* in, std::size_t frames, std::vector<float>& out);
    // Appends what the filter still holds at the end of the stream.
    void finish(std::vector<float>& out);

private:
    void run(const float* in, std::size_t frames, std::vector<float>& out);

    soxr_t soxr_ = nullptr;
    double ratio_;
    unsigned channels_;
};

}  // namespace tonwerk::tools
