#include "stem_output.h"

#include <algorithm>

namespace tonwerk::tools {

namespace {

constexpr double separatorRate = 44100.0;

}  // namespace

StemOutput::StemOutput(std::size_t stem, const std::filesystem::path& path, const StemTarget& target,
                       std::unique_ptr<AudioInput> reference)
    : stem_(stem),
      target_(target),
      resampler_(separatorRate, target.sampleRate, 2),
      file_(path, target.sampleRate, target.channels, target.format, target.dither, stem),
      reference_(std::move(reference)) {}

void StemOutput::push(const float* stereo, std::size_t frames) {
    converted_.clear();
    resampler_.push(stereo, frames, converted_);
    writeAtTargetRate(converted_);
}

void StemOutput::finish() {
    converted_.clear();
    resampler_.finish(converted_);
    writeAtTargetRate(converted_);
    if (written_ < target_.frames) {
        // The resampler's output length can fall a frame short of the exact ratio.
        const std::vector<float> silence(static_cast<std::size_t>(target_.frames - written_) * 2, 0.0f);
        writeAtTargetRate(silence);
    }
    file_.close();
}

// Anything past the input's length is filter tail and is dropped.
void StemOutput::writeAtTargetRate(const std::vector<float>& stereo) {
    const std::int64_t available = static_cast<std::int64_t>(stereo.size() / 2);
    const std::size_t frames = static_cast<std::size_t>(std::min(available, target_.frames - written_));
    if (frames == 0) return;
    const std::size_t channels = static_cast<std::size_t>(target_.channels);
    samples_.resize(frames * channels);
    if (channels == 1) {
        for (std::size_t i = 0; i < frames; ++i) samples_[i] = 0.5f * (stereo[2 * i] + stereo[2 * i + 1]);
    } else {
        std::copy(stereo.begin(), stereo.begin() + static_cast<std::ptrdiff_t>(frames * 2), samples_.begin());
    }
    file_.write(samples_.data(), frames);
    stats_.add(samples_.data(), samples_.size());
    if (reference_ != nullptr) {
        referenceSamples_.resize(samples_.size());
        const std::size_t got = reference_->read(referenceSamples_.data(), frames);
        std::fill(referenceSamples_.begin() + static_cast<std::ptrdiff_t>(got * channels), referenceSamples_.end(),
                  0.0f);
        sdr_.add(samples_.data(), referenceSamples_.data(), samples_.size());
    }
    written_ += static_cast<std::int64_t>(frames);
}

}  // namespace tonwerk::tools
