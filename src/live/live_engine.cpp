#include "live/live_engine.h"

#include "pipeline/stem_outputs.h"
#include "pipeline/stream_layout.h"
#include "spectral/window.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace tonwerk {

using layout::kAudioChannels;
using layout::kFftSize;
using layout::kHop;
using layout::kStemCount;

void checkLiveSettings(const LiveSettings& settings, std::size_t frames) {
    if (settings.update < 1 || settings.update > frames) {
        throw std::invalid_argument("live: update must be between 1 and " + std::to_string(frames) + " hops, got " +
                                    std::to_string(settings.update));
    }
    if (settings.lookahead > frames - settings.update) {
        throw std::invalid_argument("live: lookahead " + std::to_string(settings.lookahead) + " and update " +
                                    std::to_string(settings.update) + " together exceed the model's " +
                                    std::to_string(frames) + " frames");
    }
}

namespace {

// A model whose frames are not fixed gets the processor's.
std::size_t framesOf(const std::shared_ptr<IInference>& backend) {
    const std::size_t frames = modelFrames(backend);
    return frames > 0 ? frames : layout::kSegmentFrames;
}

}  // namespace

LiveEngine::LiveEngine(std::shared_ptr<IInference> backend, LiveSettings settings)
    : backend_(std::move(backend)),
      frames_(framesOf(backend_)),
      settings_(settings),
      window_(makeWindow(Blackman, static_cast<std::int32_t>(layout::kFftSize))) {
    checkLiveSettings(settings, frames_);
    recent_ = xt::xtensor<float, 2>::from_shape({kAudioChannels, kFftSize - kHop + blockFrames()});
    delayed_ = xt::xtensor<float, 2>::from_shape({kAudioChannels, latencyFrames() + blockFrames()});
    rows_ = xt::xtensor<float, 3>::from_shape({kStemCount + 1, kAudioChannels, blockFrames()});
    // Every frame is handed out, none held back for a neighbour: the engine
    // picks the frames it delivers itself.
    analysis_ = std::make_unique<PreProcessor>(kAudioChannels, kFftSize, kHop, window_, backend_, frames_, false,
                                               kStemCount);
    for (std::size_t s = 0; s < kStemCount; ++s) {
        synthesis_.push_back(std::make_unique<OverlapAddSynthesizer>(kAudioChannels, kFftSize, kHop, window_));
    }
    reset();
}

void LiveEngine::reset() {
    // A reset comes from the worker between blocks; the tens of megabytes of
    // analysis state are cleared in place rather than made again.
    analysis_->restart();
    // The silence before the stream, as frames: without them the first
    // samples would be divided by the tail of a single window, which turns
    // rounding noise into bursts. They also carry out what an overlap-add
    // still held of an earlier stream.
    for (auto& synthesis : synthesis_) {
        for (std::size_t f = 0; f + kHop < kFftSize; f += kHop) {
            synthesis->processStagedFrame(true, rows_.data(), kHop, 0, kHop);  // rows_ as scratch
        }
    }
    recent_.fill(0.0F);
    delayed_.fill(0.0F);
}

void LiveEngine::process(const float* input, float* const* outputs) {
    takeInput(input);
    const PreProcessor::FrameRange range = analysis_->analyse(recent_, false);
    synthesize(range.ok);
    writeStemOutputs(rows_.data(), blockFrames(), true, outputs);
}

void LiveEngine::takeInput(const float* input) {
    const std::size_t block = blockFrames();
    for (auto* lines : {&recent_, &delayed_}) {
        const std::size_t length = lines->shape()[1];
        for (std::size_t c = 0; c < kAudioChannels; ++c) {
            float* line = lines->data() + c * length;
            std::copy(line + block, line + length, line);
            for (std::size_t i = 0; i < block; ++i) {
                line[length - block + i] = input[kAudioChannels * i + c];
            }
        }
    }
    // The mixture row is the delay line's oldest block.
    const std::size_t delayLength = delayed_.shape()[1];
    for (std::size_t c = 0; c < kAudioChannels; ++c) {
        const float* oldest = delayed_.data() + c * delayLength;
        std::copy(oldest, oldest + block, rows_.data() + (kStemCount * kAudioChannels + c) * block);
    }
}

void LiveEngine::synthesize(bool modelRan) {
    const std::size_t block = blockFrames();
    // The new frames sit in the last `update` slots; the ones handed out are
    // `lookahead` slots older.
    const std::size_t first = frames_ - settings_.lookahead - settings_.update;
    for (std::size_t f = 0; f < settings_.update; ++f) {
        for (std::size_t s = 0; s < kStemCount; ++s) {
            OverlapAddSynthesizer& synthesizer = *synthesis_[s];
            const bool silent = !modelRan || analysis_->frameSilent(s, first + f);
            if (!silent) {
                analysis_->packFrameInto(s, first + f, synthesizer.stagedFrame());
            }
            float* rows = rows_.data() + s * kAudioChannels * block + f * kHop;
            synthesizer.processStagedFrame(silent, rows, block, 0, kHop);
        }
    }
}

}  // namespace tonwerk
