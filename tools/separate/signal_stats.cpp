#include "signal_stats.h"

#include <cmath>
#include <limits>

namespace tonwerk::tools {

void SignalStats::add(const float* samples, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const double value = samples[i];
        sumSquares_ += value * value;
        peak_ = std::max(peak_, std::fabs(samples[i]));
    }
    count_ += count;
}

double SignalStats::rmsDbfs() const {
    if (count_ == 0 || sumSquares_ == 0.0) return -std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(sumSquares_ / static_cast<double>(count_));
}

void SdrMeter::add(const float* estimate, const float* reference, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const double ref = reference[i];
        const double error = ref - static_cast<double>(estimate[i]);
        referenceEnergy_ += ref * ref;
        errorEnergy_ += error * error;
    }
}

std::optional<double> SdrMeter::sdrDb() const {
    if (referenceEnergy_ == 0.0) return std::nullopt;
    if (errorEnergy_ == 0.0) return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(referenceEnergy_ / errorEnergy_);
}

}  // namespace tonwerk::tools
