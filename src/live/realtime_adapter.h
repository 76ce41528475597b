// Live separation for audio callbacks: any block size up to a declared
// maximum in, exactly as many frames of every output out, at a fixed delay.
#pragma once

#include "live/block_ring.h"
#include "live/live_engine.h"
#include "pipeline/stream_layout.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace tonwerk {

struct AdapterSettings {
    // Most frames one process() call may bring.
    std::size_t maxBlock = 512;
    // Wait for the model instead of counting an underrun (renders).
    bool offline = false;
    // For tests, input blocks (by index in the stream) the worker holds
    // back whatever the machine's pace; called on both threads, must not
    // block. `stall`: held until late, and offline waits skip them, so
    // every other block arrives in time and the underruns fall exactly
    // where chosen. `hold`: held until the audio thread decides on them:
    // in real time they are missed, offline they are waited for and come.
    std::function<bool(std::uint64_t)> stall;
    std::function<bool(std::uint64_t)> hold;
};

// The model runs on a worker thread the adapter owns. process(), reset()
// and setOffline() belong to one thread at a time, the audio thread; in
// real-time mode they never allocate, lock, wait or make a system call.
// The other members may be called from any thread.
//
// Where the model's output is late (an underrun) the delayed input takes
// its place, shared out over the outputs in the proportions of the last
// block the model gave: the outputs still sum to the delayed input, and a
// stem the host turns down stays about as quiet as it was. Every switch
// between the two is a linear crossfade over kFadeFrames, which keeps the
// sum, so the switch makes no click.
class RealtimeAdapter {
public:
    static constexpr std::size_t kFadeFrames = 128;

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
    // residual, mix). Frames of blocks the model missed count as underruns.
    void process(const float* input, float* const* outputs, std::size_t frames);
    // Starts the stream anew (a transport jump): silence for latencyFrames().
    void reset();
    void setOffline(bool offline) { offline_.store(offline, std::memory_order_relaxed); }
    std::uint64_t underrunFrames() const { return underruns_.load(std::memory_order_relaxed); }

private:
    static constexpr std::size_t kOutputs = layout::kStemCount + 2;
    // The stems and the residual: the outputs the delayed input is shared
    // out over (the mix is the stems' sum).
    static constexpr std::size_t kShares = layout::kStemCount + 1;
    using Shares = std::array<float, kShares>;

    std::size_t block() const { return engine_->blockFrames(); }
    std::size_t queueFrames() const { return 2 * block() + settings_.maxBlock; }
    void remember(const float* input, std::size_t frames);
    void pushInput(const float* input, std::size_t frames);
    // Writes frames [at, at + count) of this call for stream frame `t`
    // onwards, returning how many it wrote.
    std::size_t emit(std::uint64_t t, float* const* outputs, std::size_t at, std::size_t count);
    void enterBlock(std::uint64_t index);
    // Whether the model's block `index` is there to be played, taking it
    // (and waiting for it when offline).
    bool takeBlock(std::uint64_t index);
    // At the start (stream frame `t`) of the current block's last
    // kFadeFrames: copies them out, lets the block go, and decides on the
    // next one.
    void decideNext(std::uint64_t t);
    void takeShares();
    // The newest model block at or past `index`, dropping older ones.
    BlockHeader* blockFor(std::uint64_t index);
    // How much of the model's output frame `offset` of the current block carries.
    float wetness(std::size_t offset) const;
    // Frames of the model's outputs: each output's `frames` in a row, read
    // from frame `first` on.
    struct ModelRows {
        const float* rows = nullptr;
        std::size_t frames = 0;
        std::size_t first = 0;
    };
    void blend(std::uint64_t t, ModelRows model, std::size_t offset, float* const* outputs, std::size_t at,
               std::size_t count);
    const float* dryFrame(std::uint64_t t) const;

    void work();
    bool late(const BlockHeader& in) const;
    // Whether to leave block `in` unprocessed, having held it first if a
    // test stalls it.
    bool skip(const BlockHeader& in) const;
    void runEngine(const BlockHeader& in, BlockHeader& out, std::size_t& warmup);

    std::unique_ptr<LiveEngine> engine_;
    AdapterSettings settings_;
    // Set on the audio thread, read by both.
    std::atomic<bool> offline_;
    BlockRing input_;
    // Each block: the outputs, then their Shares.
    BlockRing output_;

    // Audio thread only: the stream position, the input block being filled,
    // and the input itself for the frames without model output.
    std::uint64_t generation_ = 0;
    std::uint64_t frame_ = 0;
    std::uint64_t inputBlock_ = 0;
    std::size_t inputFill_ = 0;
    BlockHeader* filling_ = nullptr;
    // One past the newest input block dropped for want of room.
    std::uint64_t droppedBefore_ = 0;
    std::vector<float> dry_;
    // The model block being played: its index, whether it (and its
    // neighbours) carry model output, the block held in the output ring
    // until its tail is copied into `tail_`.
    std::uint64_t playing_ = UINT64_MAX;
    bool wetBefore_ = false;
    bool wet_ = false;
    bool wetNext_ = false;
    bool nextDecided_ = false;
    BlockHeader* held_ = nullptr;
    std::vector<float> tail_;
    // How the input is shared out where the model is missing, and the
    // playing block's shares, due once its fade-in is over.
    Shares shares_{};
    Shares nextShares_{};
    bool sharesDue_ = false;

    // The audio thread's generation and position, packed (see mark()), for
    // the worker to tell a late block.
    std::atomic<std::uint64_t> played_{0};
    // The block the audio thread waits for, as mark(generation, index + 1);
    // 0 when it waits for none.
    std::atomic<std::uint64_t> awaited_{0};
    std::atomic<std::uint64_t> latestGeneration_{0};
    std::atomic<std::uint64_t> underruns_{0};
    std::atomic<bool> stopping_{false};
    std::thread worker_;
};

}  // namespace tonwerk
