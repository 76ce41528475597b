#include "pipeline/stem_outputs.h"

#include "common/fresh_pages.h"
#include "pipeline/stream_layout.h"

#include <array>

namespace tonwerk {
namespace {

using layout::kAudioChannels;
using layout::kStemCount;
constexpr std::size_t kResidual = kStemCount;
constexpr std::size_t kMix = kStemCount + 1;

// Vectors of `floats` values, their memory mapped ahead of the sweep: the
// host receives several MB per model run, and faulting those pages in one
// at a time costs more than filling them.
std::vector<std::vector<float>> freshOutputs(std::size_t floats) {
    std::vector<std::vector<float>> outputs(kStemCount + 2);
    for (auto& output : outputs) {
        output.reserve(floats);
        prepareForWriting(output.data(), floats * sizeof(float));
        output.resize(floats);
    }
    return outputs;
}

}  // namespace

std::vector<std::vector<float>> buildStemOutputs(const xt::xarray<float>& result, bool interleaved) {
    const std::size_t length = result.shape()[2];
    std::vector<std::vector<float>> outputs = freshOutputs(kAudioChannels * length);
    std::array<float*, kStemCount + 2> out{};
    for (std::size_t k = 0; k < out.size(); ++k) out[k] = outputs[k].data();
    writeStemOutputs(result.data(), length, interleaved, out.data());
    return outputs;
}

void writeStemOutputs(const float* rows, std::size_t length, bool interleaved, float* const* out) {
    const std::size_t sliceSize = kAudioChannels * length;
    std::array<const float*, kStemCount + 1> in{};
    for (std::size_t k = 0; k < in.size(); ++k) in[k] = rows + k * sliceSize;

    // Channel c's sample i sits at row index c * length + i and goes to
    // 2i + c (interleaved) or c * length + i (planar).
    const std::size_t step = interleaved ? kAudioChannels : 1;
    for (std::size_t c = 0; c < kAudioChannels; ++c) {
        const std::size_t row = c * length;
        const std::size_t to = interleaved ? c : row;
        for (std::size_t i = 0; i < length; ++i) {
            const std::size_t p = to + i * step;
            float sum = in[0][row + i];
            out[0][p] = sum;
            for (std::size_t s = 1; s < kStemCount; ++s) {
                const float v = in[s][row + i];
                out[s][p] = v;
                sum = sum + v;
            }
            out[kMix][p] = sum;
            out[kResidual][p] = in[kStemCount][row + i] - sum;
        }
    }
}

}  // namespace tonwerk
