#include "live/band_limited_ring.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tonwerk {
namespace {

// Zero crossings of the sinc each side and the Kaiser window's shape:
// about 70 dB of stop-band for 32 taps per output at equal rates.
constexpr double kZeroCrossings = 16.0;
constexpr double kKaiserBeta = 7.0;
constexpr double kPhases = 512.0;
constexpr double kPi = 3.14159265358979323846;

// The modified Bessel function of the first kind, order 0, by its series.
double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k < 50; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

std::size_t powerOfTwoAtLeast(std::size_t n) {
    std::size_t size = 1;
    while (size < n) size <<= 1;
    return size;
}

}  // namespace

double SincKernel::supportFor(double cutoff) {
    return kZeroCrossings / cutoff;
}

SincKernel::SincKernel(double cutoff) : support_(supportFor(cutoff)) {
    if (!(cutoff > 0.0 && cutoff <= 1.0)) {
        throw std::invalid_argument("SincKernel: the cutoff must be in (0, 1], got " + std::to_string(cutoff));
    }
    const auto entries = static_cast<std::size_t>(std::ceil(support_ * kPhases)) + 2;
    table_.resize(entries);
    const double norm = besselI0(kKaiserBeta);
    for (std::size_t j = 0; j < entries; ++j) {
        const double x = static_cast<double>(j) / kPhases;
        const double u = x / support_;
        if (u >= 1.0) {
            table_[j] = 0.0F;
            continue;
        }
        const double y = kPi * cutoff * x;
        const double sinc = x == 0.0 ? 1.0 : std::sin(y) / y;
        table_[j] = static_cast<float>(cutoff * sinc * besselI0(kKaiserBeta * std::sqrt(1.0 - u * u)) / norm);
    }
}

float SincKernel::at(double distance) const {
    const double scaled = std::abs(distance) * kPhases;
    const auto index = static_cast<std::size_t>(scaled);
    if (index + 1 >= table_.size()) return 0.0F;
    const auto fraction = static_cast<float>(scaled - static_cast<double>(index));
    return table_[index] + fraction * (table_[index + 1] - table_[index]);
}

BandLimitedRing::BandLimitedRing(std::size_t channels, std::size_t frames, double cutoff)
    : channels_(channels), kernel_(cutoff) {
    const std::size_t size = powerOfTwoAtLeast(frames);
    mask_ = size - 1;
    samples_.assign(size * channels, 0.0F);
}

void BandLimitedRing::push(const float* frames, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, ++count_) {
        std::copy(frames + i * channels_, frames + (i + 1) * channels_,
                  samples_.begin() + static_cast<std::ptrdiff_t>((count_ & mask_) * channels_));
    }
}

void BandLimitedRing::valueAt(std::int64_t whole, double fraction, float* out) const {
    std::fill(out, out + channels_, 0.0F);
    const auto reach = static_cast<std::int64_t>(std::floor(support()));
    const std::int64_t first = std::max<std::int64_t>(whole - reach, 0);
    const std::int64_t last = std::min<std::int64_t>(whole + reach + 1, static_cast<std::int64_t>(count_) - 1);
    for (std::int64_t i = first; i <= last; ++i) {
        const float weight = kernel_.at(static_cast<double>(i - whole) - fraction);
        const float* frame = samples_.data() + (static_cast<std::size_t>(i) & mask_) * channels_;
        for (std::size_t c = 0; c < channels_; ++c) out[c] += weight * frame[c];
    }
}

void BandLimitedRing::clear() {
    std::fill(samples_.begin(), samples_.end(), 0.0F);
    count_ = 0;
}

}  // namespace tonwerk
