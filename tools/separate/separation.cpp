#include "separation.h"

#include "interrupt.h"
#include "tool_error.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <string>

namespace tonwerk::tools {

namespace {

void toStereo(const std::vector<float>& in, std::size_t frames, int channels, std::vector<float>& stereo) {
    stereo.resize(frames * 2);
    if (channels == 2) {
        std::copy(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(frames * 2), stereo.begin());
        return;
    }
    for (std::size_t i = 0; i < frames; ++i) stereo[2 * i] = stereo[2 * i + 1] = in[i];
}

// Below one step of 16-bit audio: nothing a model owes an answer to.
constexpr float audibleLevel = 1.0f / 32768.0f;

bool allZero(const std::vector<float>& samples) {
    return std::all_of(samples.begin(), samples.end(), [](float v) { return v == 0.0f; });
}

bool audible(const std::vector<float>& samples) {
    return std::any_of(samples.begin(), samples.end(), [](float v) { return !(std::fabs(v) <= audibleLevel); });
}

class SeparatorFeed {
public:
    SeparatorFeed(std::string source, TonwerkProc& processor, const StemSelection& asked,
                  std::vector<std::unique_ptr<StemOutput>>& stems, ProgressBar& progress, Console& console)
        : source_(std::move(source)), processor_(processor), asked_(asked), progress_(progress), console_(console) {
        console_.passOnCaptured();
        console_.forgetLibraryErrors();
        for (auto& stem : stems) outputs_[stem->stem()] = stem.get();
    }

    void feed(const float* stereo, std::size_t frames, bool eof) {
        block_.assign(stereo, stereo + frames * 2);
        const std::vector<std::vector<float>> result = processor_.process(block_, eof);
        passOnLibraryOutput();
        fed_ += frames;
        if (result.empty()) return;
        if (result.size() != stemNames.size()) {
            throw std::runtime_error("the separator returned " + std::to_string(result.size()) +
                                     " stems instead of " + std::to_string(stemNames.size()));
        }
        const std::size_t length = result[0].size();
        for (std::size_t i = 0; i < result.size(); ++i) {
            if (result[i].size() != length) throw std::runtime_error("the separator returned stems of unequal length");
        }
        checkModelAnswered(result);
        for (std::size_t i = 0; i < result.size(); ++i) {
            if (outputs_[i] != nullptr) outputs_[i]->push(result[i].data(), length / 2);
        }
        produced_ += length / 2;
    }

    // Should the separator hand back less than it was given, the end is
    // silence, so every stem still spans the whole input.
    void padToInputLength() {
        if (produced_ >= fed_) return;
        const std::vector<float> silence((fed_ - produced_) * 2, 0.0f);
        for (StemOutput* output : outputs_) {
            if (output != nullptr) output->push(silence.data(), fed_ - produced_);
        }
        produced_ = fed_;
    }

    std::size_t fedFrames() const { return fed_; }

private:
    void passOnLibraryOutput() {
        if (!console_.hasCaptured()) return;
        progress_.clear();
        console_.passOnCaptured();
    }

    // With every asked stem zero the mix is zero and the residual is the input.
    void checkModelAnswered(const std::vector<std::vector<float>>& result) const {
        for (std::size_t i = 0; i < modelStemCount; ++i) {
            if (asked_[i] && !allZero(result[i])) return;
        }
        if (!audible(result[residualStem])) return;
        const double from = static_cast<double>(produced_) / separatorSampleRate;
        const double to = from + static_cast<double>(result[0].size() / 2) / separatorSampleRate;
        const std::string& reason = console_.lastLibraryError();
        throw inputError(source_ + ": the model produced no output: every stem asked for is silent from " +
                         formatDuration(from) + " to " + formatDuration(to) + " where the input is not; " +
                         (reason.empty() ? "the library logged no reason" : "the library's log says: " + reason));
    }

    std::string source_;
    TonwerkProc& processor_;
    StemSelection asked_;
    ProgressBar& progress_;
    Console& console_;
    std::array<StemOutput*, stemNames.size()> outputs_{};
    std::vector<float> block_;
    std::size_t fed_ = 0;
    std::size_t produced_ = 0;
};

}  // namespace

void runSeparation(AudioInput& input, TonwerkProc& processor, std::size_t blockFrames, const StemSelection& asked,
                   std::vector<std::unique_ptr<StemOutput>>& stems, ProgressBar& progress, Console& console) {
    const int channels = input.channels();
    StreamResampler toSeparatorRate(input.sampleRate(), separatorSampleRate, 2);
    SeparatorFeed separator(input.path(), processor, asked, stems, progress, console);
    std::vector<float> fileBlock(blockFrames * static_cast<std::size_t>(channels));
    std::vector<float> stereo;
    std::vector<float> pending;  // stereo at the separator's rate, not yet fed

    for (bool inputDone = false; !inputDone;) {
        throwIfInterrupted();
        const std::size_t got = input.read(fileBlock.data(), blockFrames);
        if (got > 0) {
            toStereo(fileBlock, got, channels, stereo);
            toSeparatorRate.push(stereo.data(), got, pending);
        } else {
            toSeparatorRate.finish(pending);
            inputDone = true;
        }
        // Keep at least one frame back until the input ends: the last
        // block must carry eof, and an empty eof block has no defined result.
        std::size_t offset = 0;
        while (pending.size() / 2 - offset > blockFrames) {
            separator.feed(pending.data() + offset * 2, blockFrames, false);
            offset += blockFrames;
            progress.update(static_cast<double>(separator.fedFrames()) / separatorSampleRate);
            throwIfInterrupted();
        }
        if (inputDone && pending.size() / 2 > offset) {
            separator.feed(pending.data() + offset * 2, pending.size() / 2 - offset, true);
            offset = pending.size() / 2;
        }
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(offset * 2));
        progress.update(static_cast<double>(separator.fedFrames()) / separatorSampleRate);
    }
    separator.padToInputLength();
    for (auto& stem : stems) stem->finish();
}

}  // namespace tonwerk::tools
