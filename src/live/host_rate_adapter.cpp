#include "live/host_rate_adapter.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

// The part of each Nyquist band kept: the converters pass 0.92 of the
// lower rate's band and stop above it.
constexpr double kPassBand = 0.92;

std::uint32_t checkedRate(std::uint32_t rate) {
    HostRateAdapter::checkRate(rate);
    return rate;
}

// Model-rate frames one call of `frames` host frames can bring, and one more.
std::size_t modelBlock(std::size_t frames, std::uint32_t rate) {
    return static_cast<std::size_t>(std::ceil(static_cast<double>(frames) * HostRateAdapter::kModelRate / rate)) + 2;
}

AdapterSettings atModelRate(AdapterSettings settings, std::uint32_t rate) {
    settings.maxBlock = modelBlock(settings.maxBlock, rate);
    return settings;
}

double cutoff(std::uint32_t from, std::uint32_t to) {
    return kPassBand * std::min(1.0, static_cast<double>(to) / from);
}

// Floor division for a signed numerator and a positive denominator.
std::int64_t floorDiv(std::int64_t numerator, std::int64_t denominator) {
    const std::int64_t q = numerator / denominator;
    return (numerator % denominator != 0 && numerator < 0) ? q - 1 : q;
}

}  // namespace

namespace {

// A host frame leaves once the model-rate frames around it exist: the
// input converter's reach, the adapter's latency and the output
// converter's reach, in host frames, and two frames of rounding.
std::size_t convertedLatency(std::size_t innerLatency, std::uint32_t rate) {
    if (rate == HostRateAdapter::kModelRate) return innerLatency;
    const double scale = static_cast<double>(rate) / HostRateAdapter::kModelRate;
    const double inReach = SincKernel::supportFor(cutoff(rate, HostRateAdapter::kModelRate));
    const double outReach = SincKernel::supportFor(cutoff(HostRateAdapter::kModelRate, rate));
    return static_cast<std::size_t>(
               std::ceil(1.0 + inReach + (static_cast<double>(innerLatency) + outReach + 2.0) * scale)) + 1;
}

// The converters' history, none at the model's own rate.
std::size_t ringFrames(std::uint32_t rate, double frames) {
    return rate == HostRateAdapter::kModelRate ? 1 : static_cast<std::size_t>(frames);
}

}  // namespace

void HostRateAdapter::checkRate(std::uint32_t rate) {
    if (rate < kLowestRate || rate > kHighestRate) {
        throw std::invalid_argument("live: the sample rate must be between " + std::to_string(kLowestRate) +
                                    " and " + std::to_string(kHighestRate) + " Hz, got " + std::to_string(rate));
    }
}

HostRateAdapter::HostRateAdapter(std::unique_ptr<LiveEngine> engine, AdapterSettings settings,
                                 std::uint32_t hostRate)
    : rate_(checkedRate(hostRate)),
      maxBlock_(settings.maxBlock),
      inner_(std::move(engine), rate_ == kModelRate ? std::move(settings) : atModelRate(std::move(settings), rate_)),
      latency_(convertedLatency(inner_.latencyFrames(), rate_)),
      // The host frames one conversion reaches back to, and the model-rate
      // frames between the oldest a call reads and the newest it makes.
      hostInput_(kChannels,
                 ringFrames(rate_, static_cast<double>(maxBlock_) +
                                       2 * SincKernel::supportFor(cutoff(rate_, kModelRate)) + 8),
                 cutoff(rate_, kModelRate)),
      modelOutput_(kOutputs * kChannels,
                   ringFrames(rate_, static_cast<double>(maxBlock_ + latency_) * kModelRate / rate_ +
                                         2 * SincKernel::supportFor(cutoff(kModelRate, rate_)) +
                                         static_cast<double>(modelBlock(maxBlock_, rate_)) + 16),
                   cutoff(kModelRate, rate_)) {
    if (!converts()) return;
    const std::size_t modelMax = modelBlock(maxBlock_, rate_);
    staged_.assign(kChannels * modelMax, 0.0F);
    rows_.assign(kOutputs * kChannels * modelMax, 0.0F);
    for (std::size_t s = 0; s < kOutputs; ++s) rowPointers_[s] = rows_.data() + s * kChannels * modelMax;
    interleaved_.assign(kOutputs * kChannels * modelMax, 0.0F);
}

std::size_t HostRateAdapter::lookaheadFrames() const {
    return static_cast<std::size_t>(
        std::lround(static_cast<double>(inner_.lookaheadFrames()) * rate_ / kModelRate));
}

std::uint64_t HostRateAdapter::underrunFrames() const {
    const std::uint64_t frames = inner_.underrunFrames();
    return converts() ? static_cast<std::uint64_t>(std::llround(static_cast<double>(frames) * rate_ / kModelRate))
                      : frames;
}

void HostRateAdapter::process(const float* input, float* const* outputs, std::size_t frames) {
    if (!converts()) {
        inner_.process(input, outputs, frames);
        return;
    }
    hostInput_.push(input, frames);
    runModelRate();
    emitHostFrames(outputs, frames);
}

void HostRateAdapter::reset() {
    inner_.reset();
    hostInput_.clear();
    modelOutput_.clear();
    modelFrames_ = 0;
    hostFrames_ = 0;
}

// Model-rate frame k lies at host position k * rate / 44100; it is made
// once the host frames its kernel reaches are in.
void HostRateAdapter::runModelRate() {
    const auto reach = static_cast<std::int64_t>(std::floor(hostInput_.support()));
    const auto pushed = static_cast<std::int64_t>(hostInput_.count());
    std::size_t made = 0;
    for (;;) {
        const std::uint64_t numerator = modelFrames_ * rate_;
        const auto whole = static_cast<std::int64_t>(numerator / kModelRate);
        if (whole + reach + 2 > pushed) break;
        const double fraction = static_cast<double>(numerator % kModelRate) / kModelRate;
        hostInput_.valueAt(whole, fraction, staged_.data() + kChannels * made);
        ++made;
        ++modelFrames_;
    }
    if (made == 0) return;
    inner_.process(staged_.data(), rowPointers_.data(), made);
    for (std::size_t i = 0; i < made; ++i) {
        for (std::size_t s = 0; s < kOutputs; ++s) {
            for (std::size_t c = 0; c < kChannels; ++c) {
                interleaved_[(i * kOutputs + s) * kChannels + c] = rowPointers_[s][i * kChannels + c];
            }
        }
    }
    modelOutput_.push(interleaved_.data(), made);
}

// Host frame n reads the adapter's outputs at model-rate position
// (n - latency) * 44100 / rate + the adapter's own latency: the model's
// output for host input frame n - latency.
void HostRateAdapter::emitHostFrames(float* const* outputs, std::size_t frames) {
    const auto rate = static_cast<std::int64_t>(rate_);
    const auto innerLatency = static_cast<std::int64_t>(inner_.latencyFrames());
    float frame[kOutputs * kChannels];
    for (std::size_t i = 0; i < frames; ++i, ++hostFrames_) {
        const std::int64_t numerator =
            (static_cast<std::int64_t>(hostFrames_) - static_cast<std::int64_t>(latency_)) * kModelRate +
            innerLatency * rate;
        const std::int64_t whole = floorDiv(numerator, rate);
        const double fraction = static_cast<double>(numerator - whole * rate) / static_cast<double>(rate);
        modelOutput_.valueAt(whole, fraction, frame);
        for (std::size_t s = 0; s < kOutputs; ++s) {
            outputs[s][kChannels * i] = frame[s * kChannels];
            outputs[s][kChannels * i + 1] = frame[s * kChannels + 1];
        }
    }
}

}  // namespace tonwerk
