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
// Ownership: `ModelData::data` is borrowed only while the InferenceContext
// constructor runs. A context is shared through std::shared_ptr; every
// processor keeps its context (and with it the loaded model) alive.
//
// Threading: the library starts no thread and takes no lock. One processor
// must be used by one thread at a time. Processors built on the same context
// share one model session, so their process() calls must not overlap.
// Contexts are independent of each other, except that the first context
// constructed while no logger exists sets up logging (standard output,
// threshold warning) and tears it down when it is destroyed.
//
// Units: samples are 32-bit floats at the model's rate (44100 Hz); sizes
// returned by maxInputSize() are frames (samples per channel).
//
// Errors: every failure is a standard exception (std::runtime_error,
// std::invalid_argument, std::bad_alloc) or ONNX Runtime's Ort::Exception,
// which derives from std::exception.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
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
