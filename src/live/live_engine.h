// Separation with a short, fixed delay: the model runs on the sliding
// spectrogram every few hops instead of once per chunk, and each run hands
// out the frames that now have enough future context.
#pragma once

#include "inference/inference.h"
#include "pipeline/overlap_add_synthesizer.h"
#include "pipeline/stream_layout.h"
#include "spectral/pre_processor.h"

#include <xtensor/xtensor.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace tonwerk {

struct LiveSettings {
    // Hops of new audio per model run (compute grows as 256 / update).
    std::size_t update = 4;
    // Frames of future context a frame has when it is handed out. Later runs
    // would have refined it further; what is handed out never changes.
    std::size_t lookahead = 4;
};

// Throws std::invalid_argument unless 1 <= update and update + lookahead
// fits a model's `frames` of spectrogram.
void checkLiveSettings(const LiveSettings& settings, std::size_t frames = layout::kSegmentFrames);

// One stream, one thread at a time. Every call runs the model once over
// blockFrames() new frames and returns as many frames of every output,
// delayed by latencyFrames(): output sample n belongs to input sample
// n - latencyFrames() (silence before the stream).
//
// The model sees as many frames as its input declares: the processor's 256,
// or fewer for a model made for live use, which needs only the frames its
// receptive field reaches around the ones handed out, and runs faster.
class LiveEngine {
public:
    // `backend` must not be run by anyone else while this engine works.
    // Throws std::invalid_argument when the settings do not fit its model.
    LiveEngine(std::shared_ptr<IInference> backend, LiveSettings settings);

    std::size_t blockFrames() const { return settings_.update * layout::kHop; }
    // The frames of future context the model sees: lookahead hops.
    std::size_t lookaheadFrames() const { return settings_.lookahead * layout::kHop; }
    // What overlap-add adds: a sample is complete only once every frame
    // covering it has been synthesised.
    std::size_t outputDelayFrames() const { return layout::kFftSize - layout::kHop; }
    std::size_t latencyFrames() const { return lookaheadFrames() + outputDelayFrames(); }

    // `input`: blockFrames() interleaved stereo frames. `outputs`: eight
    // buffers of 2 * blockFrames() floats (six stems, residual, mix, as the
    // processor orders them), written interleaved. A failed model run leaves
    // the stems silent and the whole mixture in the residual.
    void process(const float* input, float* const* outputs);

    // Forgets the stream: the next call starts one anew, with silence before
    // it. Allocates nothing.
    void reset();

private:
    void takeInput(const float* input);
    void synthesize(bool modelRan);

    std::shared_ptr<IInference> backend_;
    std::size_t frames_;  // of spectrogram per model run
    LiveSettings settings_;
    std::vector<float> window_;
    std::unique_ptr<PreProcessor> analysis_;
    std::vector<std::unique_ptr<OverlapAddSynthesizer>> synthesis_;
    // {2, fftSize - hop + blockFrames}: the newest frames' samples.
    xt::xtensor<float, 2> recent_;
    // Per channel, the mixture delayed by latencyFrames(): the oldest
    // latencyFrames() + blockFrames() samples heard, oldest first.
    xt::xtensor<float, 2> delayed_;
    // {stems + 1, 2, blockFrames}: the stems, then the delayed mixture.
    xt::xtensor<float, 3> rows_;
};

}  // namespace tonwerk
