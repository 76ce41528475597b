// The real-time adapter at the host's sample rate: hosts at 44.1 kHz reach
// it directly; at any other rate the input is converted to the model's
// 44.1 kHz on the way in and every output back on the way out, with a
// fixed delay that the reported latency counts, in the host's frames.
#pragma once

#include "live/band_limited_ring.h"
#include "live/realtime_adapter.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace tonwerk {

class HostRateAdapter {
public:
    static constexpr std::uint32_t kModelRate = 44100;
    static constexpr std::uint32_t kLowestRate = 22050;
    static constexpr std::uint32_t kHighestRate = 192000;

    // Throws std::invalid_argument for a rate outside [kLowestRate,
    // kHighestRate].
    static void checkRate(std::uint32_t rate);

    // Throws std::invalid_argument for a rate checkRate() refuses or a
    // maximum block of 0.
    HostRateAdapter(std::unique_ptr<LiveEngine> engine, AdapterSettings settings, std::uint32_t hostRate);

    // All in host frames: output frame n belongs to input frame
    // n - latencyFrames().
    std::size_t latencyFrames() const { return latency_; }
    std::size_t lookaheadFrames() const;
    std::size_t maxBlock() const { return maxBlock_; }
    std::uint64_t underrunFrames() const;

    // As RealtimeAdapter::process, at the host's rate: `frames` <=
    // maxBlock() in, exactly `frames` of every output out. Real-time safe.
    void process(const float* input, float* const* outputs, std::size_t frames);
    void reset();
    void setOffline(bool offline) { inner_.setOffline(offline); }

private:
    static constexpr std::size_t kOutputs = 8;
    static constexpr std::size_t kChannels = 2;

    bool converts() const { return rate_ != kModelRate; }
    // Model-rate frames from the host input pushed so far, through the adapter.
    void runModelRate();
    void emitHostFrames(float* const* outputs, std::size_t frames);

    std::uint32_t rate_;
    std::size_t maxBlock_;
    RealtimeAdapter inner_;
    std::size_t latency_;
    // Host input, and the adapter's outputs (all eight, interleaved) at
    // the model's rate.
    BandLimitedRing hostInput_;
    BandLimitedRing modelOutput_;
    std::uint64_t modelFrames_ = 0;  // model-rate frames made so far
    std::uint64_t hostFrames_ = 0;   // host frames given out so far
    std::vector<float> staged_;      // model-rate input for one call of the adapter
    std::vector<float> rows_;        // its eight outputs
    std::array<float*, kOutputs> rowPointers_{};
    std::vector<float> interleaved_;  // the same, as frames of all sixteen channels
};

}  // namespace tonwerk
