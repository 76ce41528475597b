// Tonwerk Multistem: streaming separation of a stereo music signal into stems.
//
// Usage:
//
//   std::vector<unsigned char> bytes = readFile("model.onnx");
//   auto context = std::make_shared<tonwerk::InferenceContext>(
//       tonwerk::ModelData{bytes.data(), bytes.size(), ""});
//   tonwerk::TonwerkProcConfig config{};
//   config.vocals = config.drum = config.piano = 1;
//   config.acousticGuitar = config.electricGuitar = config.bass = 1;
//   config.channels = 2;
//   config.interleaved = true;
//   tonwerk::TonwerkProc proc(context, config);
//   for (each block of interleaved stereo floats at 44100 Hz) {
//       auto stems = proc.process(block, isLastBlock);
//       if (!stems.empty()) { /* stems[0..7]: vocals, drum, piano,
//           acoustic_guitar, electric_guitar, bass, residual, mix */ }
//   }
//
// examples/separate_raw.cpp is this example as a complete program. Hosts
// written in C or another language use include/tonwerk/tonwerk_c.h instead.
//
// Ownership: `ModelData::data` is borrowed only while the InferenceContext
// constructor runs. A context is shared through std::shared_ptr; every
// processor keeps its context (and with it the loaded model) alive.
//
// Copies and moves: a TonwerkProc cannot be copy-constructed; it moves (a
// moved-from handle is empty: destroying or assigning to it is fine, calling
// process() or maxInputSize() on it throws "Processor is not prepared"), so
// it can live in standard containers. Copy assignment is shallow and has
// sharp edges: read its comment before using it. InferenceContext moves only.
//
// Threading: the library starts no thread; its only lock is held while a log
// record is printed. One processor must be used by one thread at a time.
// Processors built on the same context share one model session, so their
// process() calls must not overlap. Contexts are independent of each other
// and may be built, used and destroyed on different threads at once, except
// that the first context constructed while no logger exists sets up logging
// (standard output, threshold warning) and tears it down when it is
// destroyed: records other threads are printing at that moment are finished
// first, and nothing is printed afterwards until another context is built.
//
// Units: samples are 32-bit floats at the model's rate (44100 Hz); sizes
// returned by maxInputSize() are frames (samples per channel).
//
// Stem choice: the stems a processor asks for are stored in its context's
// model session when the processor is built, and the processor built last
// decides them for every processor of that context. Processors that need
// different stems use different contexts.
//
// Latency and output sizes: output comes in bursts, one per model run, and
// every other call returns an empty vector. Nothing comes back until the
// stream holds 257024 frames (5.83 s); the call that gets there returns the
// first burst. After that the model runs again each time roughly another
// 250880 frames (5.69 s) have arrived; the exact points follow the block
// sizes. A burst holds at most 259072 frames, and output keeps pace with
// input, up to a few thousand frames held back to open the next chunk. The call with `eof`
// returns everything still held, so over a whole stream every stem is
// exactly as long as the input and lines up with it sample for sample.
//
// Input and output layout: a block holds floats in the configured layout;
// every returned stem has two channels in that same layout (interleaved
// L R L R ..., or planar: all left samples, then all right samples).
// `channels` only says how many floats make one interleaved frame: with 4,
// a block of 4k floats is k frames whose stereo pairs are read from the
// block's first 2k floats, and the rest of the block is ignored. Planar
// input is always two channels of equal length.
//
// Block sizes: any size up to maxInputSize() per call, and different sizes
// from call to call. The model runs on chunks of whole hops (1024 frames)
// whose borders depend on the block schedule, so with a real (non-linear)
// model the stems of the same audio streamed in different block sizes
// differ slightly near chunk borders; a linear model gives the same stems
// up to float rounding.
//
// Errors: every failure is a standard exception (std::runtime_error,
// std::invalid_argument, std::bad_alloc) or ONNX Runtime's Ort::Exception,
// which derives from std::exception. InferenceContext construction throws
// when the runtime or the model cannot be loaded. process() throws
// std::runtime_error "Buffer overflow: cannot accept chunk of size N" for a
// block that does not fit (the stream is left as it was, retry with smaller
// blocks) and std::invalid_argument for input it cannot split into frames
// (`channels` 0, interleaved with `channels` 1, an odd planar size; the
// stream stays usable). A model run that fails inside the runtime does not
// throw: it is logged and the affected output is silent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#if defined(_WIN32)
#  if defined(TONWERK_BUILDING_LIBRARY)
#    define TONWERK_API __declspec(dllexport)
#  else
#    define TONWERK_API __declspec(dllimport)
#  endif
#else
#  define TONWERK_API __attribute__((visibility("default")))
#endif

namespace tonwerk {

// A serialized ONNX separation model in memory.
struct ModelData {
    const unsigned char* data = nullptr;  // borrowed; read only during InferenceContext construction
    std::uint64_t size = 0;               // bytes at `data`
    std::string key;                      // XOR scrambling key of the bytes; empty: bytes are plain
};

// One processor's configuration. Stem bits: set = ask the model for that stem.
struct TonwerkProcConfig {
    std::uint32_t vocals : 1;
    std::uint32_t drum : 1;
    std::uint32_t piano : 1;
    std::uint32_t acousticGuitar : 1;
    std::uint32_t electricGuitar : 1;
    std::uint32_t bass : 1;
    bool spareFlag;                // kept, no effect
    std::uint64_t configExtra;     // kept, no effect
    std::int32_t channels;         // interleaved channel count of the input; the audio itself is stereo
    bool interleaved;              // true: L R L R ...; false: all of channel 0, then all of channel 1
};

class InferenceContextImpl;
class TonwerkProcImpl;

// A loaded separation model. Construction loads ONNX Runtime on first use and
// builds the model session; it throws on any failure and leaks nothing.
class TONWERK_API InferenceContext {
public:
    explicit InferenceContext(ModelData modelData);
    InferenceContext(InferenceContext&& other) noexcept;
    InferenceContext& operator=(InferenceContext&& other) noexcept;
    InferenceContext(const InferenceContext&) = delete;
    InferenceContext& operator=(const InferenceContext&) = delete;
    ~InferenceContext();

private:
    friend class TonwerkProcImpl;
    InferenceContextImpl* impl;
};

// One streaming separator for one stream.
class TONWERK_API TonwerkProc {
public:
    TonwerkProc(std::shared_ptr<InferenceContext> context, TonwerkProcConfig config);
    ~TonwerkProc();

    // Moves are defined here rather than in the library, so that they cost
    // nothing at the boundary. The moved-from handle is left empty.
    TonwerkProc(TonwerkProc&& other) noexcept : impl(other.impl) { other.impl = nullptr; }
    TonwerkProc& operator=(TonwerkProc&& other) noexcept {
        if (this == &other) return *this;
        if (impl == other.impl) {  // two handles of one stream (copy assignment): back to one owner
            other.impl = nullptr;
            return *this;
        }
        TonwerkProc released(std::move(other));
        TonwerkProcImpl* previous = impl;
        impl = released.impl;
        released.impl = previous;  // this handle's former stream ends with `released`
        return *this;
    }
    // Two handles owning one implementation would free it twice.
    TonwerkProc(const TonwerkProc&) = delete;

    // Shallow: afterwards both handles share one implementation, and this
    // object's previous implementation is neither destroyed nor freed (it
    // leaks). Each handle still frees its implementation when destroyed, so
    // destroying both frees the shared one twice: a host that assigns must
    // keep one of the two handles alive for the rest of the process.
    TonwerkProc& operator=(const TonwerkProc& other);

    // Frames per channel one process() call should carry at most:
    // 257024 before the first model run, 254976 afterwards.
    std::uint64_t maxInputSize() const;

    // Pushes one block (interleaved or planar per the configuration) and
    // returns either nothing (not enough audio yet) or eight vectors, each
    // two channels of equal length: vocals, drum, piano, acoustic_guitar,
    // electric_guitar, bass, residual (mixture minus the six), mix (the six
    // summed). `eof` flushes the stream; a processor serves one stream.
    // Past the end: `eof` with nothing buffered (at the start, or twice)
    // returns nothing; audio given after the end is streamed on as if it
    // directly followed the flushed stream, with every stem as long as the
    // new audio but its first 4096 frames overlapped with the old stream's
    // last frames. Start a new stream with a new processor.
    std::vector<std::vector<float>> process(const std::vector<float>& input, bool eof);

private:
    TonwerkProcImpl* impl;
};

static_assert(sizeof(InferenceContext) == sizeof(void*), "InferenceContext must stay one pointer wide");
static_assert(sizeof(TonwerkProc) == sizeof(void*), "TonwerkProc must stay one pointer wide");
// The record crosses the library boundary by value, so its layout is part of
// the binary interface: the platform C++ ABI's. Windows compilers (MSVC, and
// mingw with its default MS bit-field layout) give the six stem bits a whole
// 32-bit unit; the Itanium ABI packs spareFlag into the unit's second byte.
#if defined(_WIN32)
static_assert(offsetof(TonwerkProcConfig, spareFlag) == 4, "TonwerkProcConfig layout is fixed");
#else
static_assert(offsetof(TonwerkProcConfig, spareFlag) == 1, "TonwerkProcConfig layout is fixed");
#endif
static_assert(offsetof(TonwerkProcConfig, configExtra) == 8, "TonwerkProcConfig layout is fixed");
static_assert(offsetof(TonwerkProcConfig, channels) == 16, "TonwerkProcConfig layout is fixed");
static_assert(offsetof(TonwerkProcConfig, interleaved) == 20, "TonwerkProcConfig layout is fixed");
static_assert(sizeof(TonwerkProcConfig) == 24, "TonwerkProcConfig layout is fixed");

}  // namespace tonwerk
