#include "stream_resampler.h"

#include "tool_error.h"

#include <cmath>
#include <soxr.h>

namespace tonwerk::tools {

StreamResampler::StreamResampler(double fromRate, double toRate, unsigned channels)
    : ratio_(toRate / fromRate), channels_(channels) {
    if (fromRate == toRate) return;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    soxr_error_t error = nullptr;
    soxr_ = soxr_create(fromRate, toRate, channels, &error, &io, &quality, nullptr);
    if (error != nullptr) throw inputError(std::string("cannot resample: ") + error);
}

StreamResampler::~StreamResampler() {
    if (soxr_ != nullptr) soxr_delete(soxr_);
}

void StreamResampler::push(const float* in, std::size_t frames, std::vector<float>& out) {
    if (soxr_ == nullptr) {
        out.insert(out.end(), in, in + frames * channels_);
        return;
    }
    if (frames != 0) run(in, frames, out);
}

void StreamResampler::finish(std::vector<float>& out) {
    if (soxr_ != nullptr) run(nullptr, 0, out);
}

// A null `in` drains the filter; soxr then keeps returning output until
// nothing is left, so both cases loop until the call makes no progress.
void StreamResampler::run(const float* in, std::size_t frames, std::vector<float>& out) {
    const std::size_t room = static_cast<std::size_t>(std::ceil(static_cast<double>(frames) * ratio_)) + 1024;
    std::size_t consumed = 0;
    for (;;) {
        const std::size_t start = out.size();
        out.resize(start + room * channels_);
        std::size_t used = 0;
        std::size_t produced = 0;
        const float* source = in == nullptr ? nullptr : in + consumed * channels_;
        const soxr_error_t error =
            soxr_process(soxr_, source, frames - consumed, &used, out.data() + start, room, &produced);
        out.resize(start + produced * channels_);
        if (error != nullptr) throw inputError(std::string("resampling failed: ") + error);
        consumed += used;
        const bool inputLeft = in != nullptr && consumed < frames;
        if (!inputLeft && (in != nullptr || produced == 0)) return;
        if (in != nullptr && used == 0 && produced == 0) return;
    }
}

}  // namespace tonwerk::tools
