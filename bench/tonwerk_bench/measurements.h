// What tonwerk-bench times. Each function does its work once and returns
// the wall time it took, in seconds; the caller repeats and keeps the best.
#pragma once

#include "bench_signal.h"

#include "tonwerk/tonwerk_proc_multistem.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace tonwerk::bench {

// Every stem, or the first one only.
enum class Stems { all, one };

// The stream through the public interface in host blocks of kHostBlock,
// eof on the last. Throws std::runtime_error when the stems do not come
// back exactly as long as the stream.
double streamSeconds(const std::shared_ptr<InferenceContext>& context, const BenchSignal& signal, Stems stems);

// How many model runs that stream makes (counted on a stand-in model).
std::size_t modelRunsOf(const BenchSignal& signal);

// Frames the stream analyses and synthesises once each: the stream, its
// lead-in of one frame and its end padding up to a whole hop.
std::size_t framesOf(const BenchSignal& signal);

// Bare PFFFT: per frame, the forward transform of each channel and the
// inverse transform of each channel of each stem.
double fftFloorSeconds(const BenchSignal& signal, std::size_t frames);

// The model alone, `runs` times, on the same backend, bindings and tensor
// shapes as the stream, fed the spectrogram of the signal's opening.
class ModelOnly {
public:
    ModelOnly(const std::vector<unsigned char>& modelBytes, const BenchSignal& signal);
    ~ModelOnly();
    double seconds(std::size_t runs);

private:
    struct Buffers;
    std::unique_ptr<Buffers> buffers;
};

}  // namespace tonwerk::bench
