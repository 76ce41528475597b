// Live separation for audio callbacks: any block size up to a declared
// maximum in, exactly as many frames of every output out, at a fixed delay.
#pragma once

#include "live/block_ring.h"
#include "live/live_engine.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace tonwerk {

struct AdapterSettings {
    // Most frames one process() call may bring.
    std::size_t maxBlock = 512;
    // Wait for the model instead of counting an underrun (renders).
    bool offline = false;
};

// The model runs on a worker thread the adapter owns. process(), reset()
// and setOffline() belong to one thread at a time, the audio thread; in
// real-time mode they never allocate, lock, wait or make a system call.
// The other members may be called from any thread.
class RealtimeAdapter {
public:
    // Throws std::invalid_argument for a maximum block of 0.
    RealtimeAdapter(std::unique_ptr<LiveEngine> engine, AdapterSettings settings);
    ~RealtimeAdapter();
    RealtimeAdapter(const RealtimeAdapter&) = delete;
    RealtimeAdapter& operator=(const RealtimeAdapter&) = delete;

    // Output frame n belongs to input frame n - latencyFrames(). Beyond the
    // engine's own delay the adapter waits for a whole block of input, a
    // host block, and one block's time for the model to run.
    std::size_t latencyFrames() const { return engine_->latencyFrames() + queueFrames(); }
    std::size_t lookaheadFrames() const { return engine_->lookaheadFrames(); }
    std::size_t maxBlock() const { return settings_.maxBlock; }

    // `input`: `frames` <= maxBlock() interleaved stereo frames; `outputs`:
    // eight buffers of 2 * frames floats, written interleaved (six stems,
    // residual, mix). Frames whose model output is not ready in time hold
    // the delayed input in the residual and silence elsewhere, and count
    // as underruns.
    void process(const float* input, float* const* outputs, std::size_t frames);
    // Starts the stream anew (a transport jump): silence for latencyFrames().
    void reset();
    void setOffline(bool offline) { settings_.offline = offline; }
    std::uint64_t underrunFrames() const { return underruns_.load(std::memory_order_relaxed); }

private:
    std::size_t block() const { return engine_->blockFrames(); }
    std::size_t queueFrames() const { return 2 * block() + settings_.maxBlock; }
    void remember(const float* input, std::size_t frames);
    void pushInput(const float* input, std::size_t frames);
    // Writes frames [at, at + count) of this call for stream frame `t`
    // onwards, returning how many it wrote.
    std::size_t emit(std::uint64_t t, float* const* outputs, std::size_t at, std::size_t count);
    // The newest model block at or past `index`, dropping older ones.
    BlockHeader* blockFor(std::uint64_t index);
    void emitDry(std::uint64_t t, float* const* outputs, std::size_t at, std::size_t count);
    void work();
    void runEngine(const BlockHeader& in, BlockHeader& out, std::size_t& warmup);

    std::unique_ptr<LiveEngine> engine_;
    AdapterSettings settings_;
    BlockRing input_;
    BlockRing output_;
    // Audio thread only: the stream position, the input block being filled,
    // and the input itself for the residual of frames without model output.
    std::uint64_t generation_ = 0;
    std::uint64_t frame_ = 0;
    std::uint64_t inputBlock_ = 0;
    std::size_t inputFill_ = 0;
    BlockHeader* filling_ = nullptr;
    // One past the newest input block dropped for want of room.
    std::uint64_t droppedBefore_ = 0;
    std::vector<float> dry_;
    std::atomic<std::uint64_t> latestGeneration_{0};
    std::atomic<std::uint64_t> underruns_{0};
    std::atomic<bool> stopping_{false};
    std::thread worker_;
};

}  // namespace tonwerk
