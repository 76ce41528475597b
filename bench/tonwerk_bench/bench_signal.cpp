#include "bench_signal.h"

#include <cmath>
#include <cstdint>

namespace tonwerk::bench {
namespace {

constexpr std::size_t kPeriodSeconds = 10;

}  // namespace

BenchSignal::BenchSignal(std::size_t frames) : frames_(frames) {
    const std::size_t length = kPeriodSeconds * kSampleRate;
    period.resize(2 * length);
    std::uint32_t noise = 0x1234567U;
    const double pi = std::acos(-1.0);
    for (std::size_t i = 0; i < length; ++i) {
        const double t = static_cast<double>(i) / kSampleRate;
        noise ^= noise << 13U;
        noise ^= noise >> 17U;
        noise ^= noise << 5U;
        const double hiss = 0.02 * (static_cast<double>(noise) / 4294967296.0 - 0.5);
        period[2 * i] = static_cast<float>(0.3 * std::sin(2 * pi * 220.0 * t) + 0.1 * std::sin(2 * pi * 3100.0 * t) + hiss);
        period[2 * i + 1] = static_cast<float>(0.3 * std::sin(2 * pi * 330.0 * t) - hiss);
    }
}

void BenchSignal::fill(std::size_t at, std::size_t count, std::vector<float>& block) const {
    block.resize(2 * count);
    const std::size_t length = period.size() / 2;
    for (std::size_t done = 0; done < count;) {
        const std::size_t from = (at + done) % length;
        const std::size_t n = std::min(count - done, length - from);
        std::copy(period.begin() + 2 * from, period.begin() + 2 * (from + n), block.begin() + 2 * done);
        done += n;
    }
}

void BenchSignal::fillRow(std::size_t channel, std::size_t at, std::size_t count, float* row) const {
    const std::size_t length = period.size() / 2;
    for (std::size_t i = 0; i < count; ++i) {
        row[i] = period[2 * ((at + i) % length) + channel];
    }
}

}  // namespace tonwerk::bench
