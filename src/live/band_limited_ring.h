// The latest frames of a sampled stream, readable at any fractional
// position through a windowed-sinc kernel: the core of the live library's
// rate conversion. Fixed latency (the kernel's support), no allocation
// after construction, any ratio of rates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tonwerk {

// A Kaiser-windowed sinc low-pass, tabulated finely enough that linear
// interpolation between entries costs nothing audible.
class SincKernel {
public:
    // `cutoff`: the part of the stream's Nyquist band kept, in (0, 1].
    explicit SincKernel(double cutoff);
    // The kernel is zero at this distance (in stream samples) and beyond.
    double support() const { return support_; }
    static double supportFor(double cutoff);
    float at(double distance) const;

private:
    double support_;
    std::vector<float> table_;  // at kPhases points per sample, from 0
};

class BandLimitedRing {
public:
    // Room for at least `frames` frames of `channels` interleaved samples.
    BandLimitedRing(std::size_t channels, std::size_t frames, double cutoff);

    // Appends `frames` interleaved frames.
    void push(const float* frames, std::size_t count);
    // Frames pushed so far: frame i of the stream is index i.
    std::uint64_t count() const { return count_; }
    // The kernel's reach: a value at `position` needs the frames up to
    // position + support() pushed, and the ring to hold those from
    // position - support() on.
    double support() const { return kernel_.support(); }
    // The stream at `whole + fraction` (0 <= fraction < 1), band-limited,
    // into `out` (one value per channel). Frames before the stream count
    // as silence.
    void valueAt(std::int64_t whole, double fraction, float* out) const;
    // Forgets the stream: silence before the next frame pushed, index 0.
    void clear();

private:
    std::size_t channels_;
    std::size_t mask_;
    std::vector<float> samples_;
    std::uint64_t count_ = 0;
    SincKernel kernel_;
};

}  // namespace tonwerk
