#include "live/realtime_adapter.h"

#include "common/logging.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

using layout::kAudioChannels;
constexpr std::size_t kResidual = layout::kStemCount;

// The worker polls: waking it would take a system call on the audio thread.
// Half a millisecond is far below a model block's duration.
void pause() { std::this_thread::sleep_for(std::chrono::microseconds(500)); }

// Blocks in flight between the threads, ample for `queue` frames of delay:
// the output ring then never fills before the audio thread takes from it.
std::size_t ringBlocks(std::size_t queueFrames, std::size_t block) { return queueFrames / block + 4; }

std::size_t checkedMaxBlock(std::size_t maxBlock) {
    if (maxBlock == 0) {
        throw std::invalid_argument("live: the maximum block must be at least one frame");
    }
    return maxBlock;
}

// The audio thread's position goes to the worker as one word: the low 16
// bits of the generation over 48 bits of frames (two centuries at 44.1 kHz).
constexpr unsigned kFrameBits = 48;
constexpr std::uint64_t kFrameMask = (std::uint64_t{1} << kFrameBits) - 1;
constexpr std::uint64_t kGenerationMask = 0xFFFF;

std::uint64_t mark(std::uint64_t generation, std::uint64_t frame) {
    return ((generation & kGenerationMask) << kFrameBits) | (frame & kFrameMask);
}

constexpr float kSilence[kAudioChannels] = {0.0F, 0.0F};

}  // namespace

RealtimeAdapter::RealtimeAdapter(std::unique_ptr<LiveEngine> engine, AdapterSettings settings)
    : engine_(std::move(engine)),
      settings_{checkedMaxBlock(settings.maxBlock), settings.offline, std::move(settings.stall),
                std::move(settings.hold)},
      offline_(settings.offline),
      input_(ringBlocks(queueFrames(), block()), kAudioChannels * block()),
      output_(ringBlocks(queueFrames(), block()), kOutputs * kAudioChannels * block() + kShares),
      dry_(kAudioChannels * (latencyFrames() + settings_.maxBlock), 0.0F),
      tail_(kOutputs * kAudioChannels * kFadeFrames, 0.0F) {
    shares_[kResidual] = 1.0F;
    worker_ = std::thread([this] { work(); });
}

RealtimeAdapter::~RealtimeAdapter() {
    stopping_.store(true, std::memory_order_release);
    worker_.join();
}

void RealtimeAdapter::process(const float* input, float* const* outputs, std::size_t frames) {
    remember(input, frames);
    pushInput(input, frames);
    for (std::size_t at = 0; at < frames;) {
        at += emit(frame_ + at, outputs, at, frames - at);
    }
    frame_ += frames;
    played_.store(mark(generation_, frame_), std::memory_order_release);
}

void RealtimeAdapter::reset() {
    ++generation_;
    latestGeneration_.store(generation_, std::memory_order_release);
    played_.store(mark(generation_, 0), std::memory_order_release);
    frame_ = 0;
    inputBlock_ = 0;
    inputFill_ = 0;
    droppedBefore_ = 0;
    // A block still held belongs to the old stream; blockFor() drops it.
    playing_ = UINT64_MAX;
    wetBefore_ = wet_ = wetNext_ = nextDecided_ = sharesDue_ = false;
    held_ = nullptr;
    shares_.fill(0.0F);
    shares_[kResidual] = 1.0F;
}

void RealtimeAdapter::remember(const float* input, std::size_t frames) {
    const std::size_t capacity = dry_.size() / kAudioChannels;
    for (std::size_t i = 0; i < frames; ++i) {
        const std::size_t slot = static_cast<std::size_t>((frame_ + i) % capacity);
        dry_[kAudioChannels * slot] = input[kAudioChannels * i];
        dry_[kAudioChannels * slot + 1] = input[kAudioChannels * i + 1];
    }
}

void RealtimeAdapter::pushInput(const float* input, std::size_t frames) {
    for (std::size_t at = 0; at < frames;) {
        if (inputFill_ == 0) {
            filling_ = input_.writable();
            while (filling_ == nullptr && offline_.load(std::memory_order_relaxed)) {
                pause();
                filling_ = input_.writable();
            }
            // With no room left the block is dropped; the frames it would
            // have given come out as underruns.
        }
        const std::size_t count = std::min(frames - at, block() - inputFill_);
        if (filling_ != nullptr) {
            std::copy(input + kAudioChannels * at, input + kAudioChannels * (at + count),
                      input_.data(filling_) + kAudioChannels * inputFill_);
        }
        inputFill_ += count;
        at += count;
        if (inputFill_ == block()) {
            if (filling_ != nullptr) {
                *filling_ = BlockHeader{generation_, inputBlock_, true};
                input_.publish();
            }
            droppedBefore_ = filling_ != nullptr ? droppedBefore_ : inputBlock_ + 1;
            ++inputBlock_;
            inputFill_ = 0;
        }
    }
}

std::size_t RealtimeAdapter::emit(std::uint64_t t, float* const* outputs, std::size_t at, std::size_t count) {
    const std::uint64_t queue = queueFrames();
    if (t < queue) {
        // Before the model's first block: the input from before the stream.
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, queue - t));
        blend(t, {}, 0, outputs, at, n);
        return n;
    }
    const std::uint64_t index = (t - queue) / block();
    const std::size_t offset = static_cast<std::size_t>((t - queue) % block());
    if (index != playing_) enterBlock(index);
    const std::size_t tailStart = block() - kFadeFrames;
    if (offset >= kFadeFrames) takeShares();
    if (offset >= tailStart && !nextDecided_) decideNext(t);
    // One piece per stretch of one kind: fade-in, body, tail.
    const std::size_t end = offset < kFadeFrames ? kFadeFrames : offset < tailStart ? tailStart : block();
    const std::size_t n = std::min(count, end - offset);
    if (!wet_) {
        blend(t, {}, offset, outputs, at, n);
        // Only frames that would have carried the stream count as lost.
        const std::uint64_t latency = latencyFrames();
        const std::uint64_t lost = t + n <= latency ? 0 : t + n - std::max<std::uint64_t>(t, latency);
        underruns_.fetch_add(lost, std::memory_order_relaxed);
    } else if (offset >= tailStart) {
        blend(t, {tail_.data(), kFadeFrames, offset - tailStart}, offset, outputs, at, n);
    } else {
        blend(t, {output_.data(held_), block(), offset}, offset, outputs, at, n);
    }
    return n;
}

void RealtimeAdapter::enterBlock(std::uint64_t index) {
    const bool followsDecision = nextDecided_ && index == playing_ + 1;
    wetBefore_ = followsDecision && wet_;
    wet_ = followsDecision ? wetNext_ : takeBlock(index);
    playing_ = index;
    nextDecided_ = false;
    // The input's share-out follows the new block once it no longer
    // sounds: at once after a model block, after the fade-in after input.
    sharesDue_ = wet_;
    if (wet_) {
        const float* shares = output_.data(held_) + kOutputs * kAudioChannels * block();
        std::copy(shares, shares + kShares, nextShares_.begin());
    }
    if (wetBefore_) takeShares();
}

void RealtimeAdapter::takeShares() {
    if (!sharesDue_) return;
    shares_ = nextShares_;
    sharesDue_ = false;
}

bool RealtimeAdapter::takeBlock(std::uint64_t index) {
    BlockHeader* ready = blockFor(index);
    // Offline, wait for the block unless it was dropped before (in real
    // time), or a test holds it back: then it never comes in time.
    const bool stalled = settings_.stall && settings_.stall(index);
    if (offline_.load(std::memory_order_relaxed) && !stalled && ready == nullptr && index >= droppedBefore_) {
        awaited_.store(mark(generation_, index + 1), std::memory_order_release);
        while (ready == nullptr) {
            pause();
            ready = blockFor(index);
        }
        awaited_.store(0, std::memory_order_release);
    }
    held_ = ready != nullptr && ready->index == index && ready->ok ? ready : nullptr;
    return held_ != nullptr;
}

void RealtimeAdapter::decideNext(std::uint64_t t) {
    // Where the audio thread stands, for the worker, which may hold an
    // earlier block back until this point has passed.
    played_.store(mark(generation_, t + 1), std::memory_order_release);
    if (wet_) {
        const float* rows = output_.data(held_);
        const std::size_t from = block() - kFadeFrames;
        for (std::size_t s = 0; s < kOutputs; ++s) {
            const float* source = rows + kAudioChannels * (s * block() + from);
            std::copy(source, source + kAudioChannels * kFadeFrames, tail_.data() + kAudioChannels * s * kFadeFrames);
        }
    }
    wetNext_ = takeBlock(playing_ + 1);
    nextDecided_ = true;
}

BlockHeader* RealtimeAdapter::blockFor(std::uint64_t index) {
    BlockHeader* ready = output_.readable();
    while (ready != nullptr && (ready->generation != generation_ || ready->index < index)) {
        output_.release();
        ready = output_.readable();
    }
    return ready;
}

float RealtimeAdapter::wetness(std::size_t offset) const {
    constexpr float kSteps = static_cast<float>(kFadeFrames + 1);
    if (offset < kFadeFrames && !wetBefore_) return static_cast<float>(offset + 1) / kSteps;
    if (offset >= block() - kFadeFrames && !wetNext_) return static_cast<float>(block() - offset) / kSteps;
    return 1.0F;
}

// Frames [offset, offset + count) of the playing block: the model's rows
// (none where it has none) crossfaded with the delayed input shared out as
// shares_ says, into frames [at, at + count) of every output. The weights
// sum to one, so the outputs always sum to the delayed input.
void RealtimeAdapter::blend(std::uint64_t t, ModelRows model, std::size_t offset, float* const* outputs,
                            std::size_t at, std::size_t count) {
    std::array<float, kOutputs> spread{};
    std::copy(shares_.begin(), shares_.end(), spread.begin());
    spread[kOutputs - 1] = 1.0F - shares_[kResidual];  // the mix: the stems' sum
    for (std::size_t i = 0; i < count; ++i) {
        const float* dry = dryFrame(t + i);
        const float wet = model.rows == nullptr ? 0.0F : wetness(offset + i);
        for (std::size_t s = 0; s < kOutputs; ++s) {
            const float* row =
                model.rows == nullptr ? kSilence : model.rows + kAudioChannels * (s * model.frames + model.first + i);
            float* out = outputs[s] + kAudioChannels * (at + i);
            for (std::size_t c = 0; c < kAudioChannels; ++c) {
                out[c] = wet * row[c] + (1.0F - wet) * spread[s] * dry[c];
            }
        }
    }
}

const float* RealtimeAdapter::dryFrame(std::uint64_t t) const {
    const std::uint64_t latency = latencyFrames();
    if (t < latency) return kSilence;
    const std::size_t capacity = dry_.size() / kAudioChannels;
    return dry_.data() + kAudioChannels * static_cast<std::size_t>((t - latency) % capacity);
}

void RealtimeAdapter::work() {
    std::uint64_t generation = 0;
    std::uint64_t next = 0;
    std::size_t warmup = 0;
    while (!stopping_.load(std::memory_order_acquire)) {
        BlockHeader* in = input_.readable();
        if (in != nullptr && in->generation < latestGeneration_.load(std::memory_order_acquire)) {
            input_.release();  // from before a reset: nobody will play it
            continue;
        }
        if (in != nullptr && skip(*in)) {
            input_.release();  // played dry already: running it would only make the next block late too
            continue;
        }
        BlockHeader* out = in != nullptr ? output_.writable() : nullptr;
        if (out == nullptr) {
            pause();
            continue;
        }
        if (in->generation != generation || in->index != next) {
            engine_->reset();
            // After a missing block the engine starts from silence: until
            // its output is a frame past that step, the audio thread plays
            // the input instead.
            warmup = in->index == 0 ? 0 : (engine_->latencyFrames() + layout::kFftSize) / block() + 1;
        }
        generation = in->generation;
        next = in->index + 1;
        runEngine(*in, *out, warmup);
        output_.publish();
        input_.release();
    }
}

// Whether the audio thread has already decided to play block `in` dry.
bool RealtimeAdapter::late(const BlockHeader& in) const {
    const std::uint64_t played = played_.load(std::memory_order_acquire);
    if (played >> kFrameBits != (in.generation & kGenerationMask)) return false;
    // Block 0 is decided on as it starts, the others a fade earlier.
    const std::uint64_t start = queueFrames() + in.index * block();
    return (played & kFrameMask) > (in.index == 0 ? start : start - kFadeFrames);
}

// Offline the audio thread waits for every block, except those a test
// stalls. Before the first block it does not wait, which can look like
// lateness and is not.
bool RealtimeAdapter::skip(const BlockHeader& in) const {
    const bool stalled = settings_.stall && settings_.stall(in.index);
    const bool held = settings_.hold && settings_.hold(in.index);
    const auto awaited = [&] {
        return awaited_.load(std::memory_order_acquire) == mark(in.generation, in.index + 1);
    };
    while ((stalled || held) && !late(in) && !(held && awaited()) && !stopping_.load(std::memory_order_acquire) &&
           in.generation == latestGeneration_.load(std::memory_order_acquire)) {
        pause();
    }
    return (stalled || !offline_.load(std::memory_order_relaxed)) && late(in);
}

void RealtimeAdapter::runEngine(const BlockHeader& in, BlockHeader& out, std::size_t& warmup) {
    float* rows = output_.data(&out);
    float* outputs[kOutputs];
    for (std::size_t s = 0; s < kOutputs; ++s) outputs[s] = rows + kAudioChannels * s * block();
    bool ok = warmup == 0;
    try {
        engine_->process(input_.data(&in), outputs);
    } catch (const std::exception& e) {
        TW_LOG(error, "tonwerk::RealtimeAdapter::work") << "Model run failed: " << e.what();
        ok = false;
    }
    warmup -= warmup > 0 ? 1 : 0;
    // Each output's share of the block's energy, for the audio thread to
    // share the input out like this block if the next one is missing.
    float* shares = rows + kOutputs * kAudioChannels * block();
    float total = 0.0F;
    for (std::size_t s = 0; s < kShares; ++s) {
        double energy = 0.0;
        for (std::size_t i = 0; i < kAudioChannels * block(); ++i) energy += double{outputs[s][i]} * outputs[s][i];
        shares[s] = static_cast<float>(energy);
        total += shares[s];
    }
    for (std::size_t s = 0; s < kShares; ++s) {
        shares[s] = total > 0.0F ? shares[s] / total : (s == kResidual ? 1.0F : 0.0F);
    }
    out = BlockHeader{in.generation, in.index, ok};
}

}  // namespace tonwerk
