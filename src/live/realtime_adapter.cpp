#include "live/realtime_adapter.h"

#include "common/logging.h"
#include "pipeline/stream_layout.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>

namespace tonwerk {
namespace {

using layout::kAudioChannels;
constexpr std::size_t kOutputs = layout::kStemCount + 2;
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

}  // namespace

RealtimeAdapter::RealtimeAdapter(std::unique_ptr<LiveEngine> engine, AdapterSettings settings)
    : engine_(std::move(engine)),
      settings_{checkedMaxBlock(settings.maxBlock), settings.offline},
      input_(ringBlocks(queueFrames(), block()), kAudioChannels * block()),
      output_(ringBlocks(queueFrames(), block()), kOutputs * kAudioChannels * block()),
      dry_(kAudioChannels * (latencyFrames() + settings.maxBlock), 0.0F) {
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
}

void RealtimeAdapter::reset() {
    ++generation_;
    latestGeneration_.store(generation_, std::memory_order_release);
    frame_ = 0;
    inputBlock_ = 0;
    inputFill_ = 0;
    droppedBefore_ = 0;
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
            while (filling_ == nullptr && settings_.offline) {
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
        emitDry(t, outputs, at, n);
        return n;
    }
    const std::uint64_t wanted = t - queue;
    const std::uint64_t index = wanted / block();
    const std::size_t offset = static_cast<std::size_t>(wanted % block());
    const std::size_t n = std::min(count, block() - offset);
    BlockHeader* ready = blockFor(index);
    // Offline, wait for the block unless it was dropped before (in real
    // time): then it never comes.
    while (settings_.offline && ready == nullptr && index >= droppedBefore_) {
        pause();
        ready = blockFor(index);
    }
    if (ready != nullptr && ready->index == index && ready->ok) {
        const float* rows = output_.data(ready);
        for (std::size_t s = 0; s < kOutputs; ++s) {
            const float* from = rows + kAudioChannels * (s * block() + offset);
            std::copy(from, from + kAudioChannels * n, outputs[s] + kAudioChannels * at);
        }
    } else {
        emitDry(t, outputs, at, n);
        // Only frames that would have carried the stream count as lost.
        const std::uint64_t latency = latencyFrames();
        const std::uint64_t lost = t + n <= latency ? 0 : t + n - std::max<std::uint64_t>(t, latency);
        underruns_.fetch_add(lost, std::memory_order_relaxed);
    }
    if (ready != nullptr && ready->index == index && offset + n == block()) {
        output_.release();
    }
    return n;
}

BlockHeader* RealtimeAdapter::blockFor(std::uint64_t index) {
    BlockHeader* ready = output_.readable();
    while (ready != nullptr && (ready->generation != generation_ || ready->index < index)) {
        output_.release();
        ready = output_.readable();
    }
    return ready;
}

void RealtimeAdapter::emitDry(std::uint64_t t, float* const* outputs, std::size_t at, std::size_t count) {
    const std::size_t capacity = dry_.size() / kAudioChannels;
    const std::uint64_t latency = latencyFrames();
    for (std::size_t s = 0; s < kOutputs; ++s) {
        std::fill(outputs[s] + kAudioChannels * at, outputs[s] + kAudioChannels * (at + count), 0.0F);
    }
    float* residual = outputs[kResidual] + kAudioChannels * at;
    for (std::size_t i = 0; i < count; ++i) {
        if (t + i < latency) continue;
        const std::size_t slot = static_cast<std::size_t>((t + i - latency) % capacity);
        residual[kAudioChannels * i] = dry_[kAudioChannels * slot];
        residual[kAudioChannels * i + 1] = dry_[kAudioChannels * slot + 1];
    }
}

void RealtimeAdapter::work() {
    bool used = false;
    std::uint64_t generation = 0;
    std::uint64_t next = 0;
    std::size_t warmup = 0;
    while (!stopping_.load(std::memory_order_acquire)) {
        BlockHeader* in = input_.readable();
        if (in != nullptr && in->generation < latestGeneration_.load(std::memory_order_acquire)) {
            input_.release();  // from before a reset: nobody will play it
            continue;
        }
        BlockHeader* out = in != nullptr ? output_.writable() : nullptr;
        if (out == nullptr) {
            pause();
            continue;
        }
        if (used && (in->generation != generation || in->index != next)) {
            engine_->reset();
            // After a dropped block the engine starts from silence: until
            // its output is a frame past that step, the audio thread plays
            // the input instead.
            warmup = in->index == 0 ? 0 : (engine_->latencyFrames() + layout::kFftSize) / block() + 1;
        }
        used = true;
        generation = in->generation;
        next = in->index + 1;
        runEngine(*in, *out, warmup);
        output_.publish();
        input_.release();
    }
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
    out = BlockHeader{in.generation, in.index, ok};
}

}  // namespace tonwerk
