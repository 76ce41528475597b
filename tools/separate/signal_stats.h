// Running level and accuracy measures of a stem as it is written.
#pragma once

#include <cstddef>
#include <optional>

namespace tonwerk::tools {

// RMS over every sample of every channel, and the largest magnitude.
class SignalStats {
public:
    void add(const float* samples, std::size_t count);
    // 20 log10(rms) relative to full scale 1.0; -infinity for silence.
    double rmsDbfs() const;
    float peak() const { return peak_; }

private:
    double sumSquares_ = 0.0;
    std::size_t count_ = 0;
    float peak_ = 0.0f;
};

// Signal-to-distortion ratio of an estimate against the true part:
// 10 log10(sum ref^2 / sum (ref - est)^2), the plain (not scale-invariant)
// definition, so a wrong level counts as distortion too.
class SdrMeter {
public:
    void add(const float* estimate, const float* reference, std::size_t count);
    // Empty when the reference is silent; +infinity for an exact match.
    std::optional<double> sdrDb() const;

private:
    double referenceEnergy_ = 0.0;
    double errorEnergy_ = 0.0;
};

}  // namespace tonwerk::tools
