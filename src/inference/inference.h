// The seam between the signal pipeline and the separation network.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tonwerk {

// Which stems the model should produce, in the model's flag order
// (note: bass comes third here, unlike the configuration bits).
struct StemFlags {
    bool vocals = false;
    bool drum = false;
    bool bass = false;
    bool piano = false;
    bool acousticGuitar = false;
    bool electricGuitar = false;
};

class IInference {
public:
    virtual ~IInference() = default;

    // One network evaluation over caller memory: `input` holds
    // shape[0]*shape[1]*shape[2]*shape[3] floats, and every pointer in
    // `outputs` (one per output name, in output-name order) has room for as
    // many. Outputs of unselected stems hold zeros afterwards. Returns true.
    virtual bool run(float* input, std::vector<float*> outputs, const std::array<std::int64_t, 4>& shape) = 0;
};

// Stores the stem selection in a backend made by makeInferenceBackend.
// All processors sharing the backend see the latest selection.
void setSelectedStems(std::shared_ptr<IInference>& inference, StemFlags flags);

// How a backend's session shares the machine. The defaults are the
// runtime's own: a thread per core that spins between runs, and every
// accelerator provider tried. A live instance beside a host's audio threads
// narrows them to one sleeping thread on the CPU.
struct SessionTuning {
    // Threads one run uses, the caller's included; 0 is the runtime's choice.
    int intraOpThreads = 0;
    // Whether idle pool threads spin waiting for the next run.
    bool spinning = true;
    // false builds a CPU session at once, without trying (and logging the
    // failure of) providers this machine may not have.
    bool tryAccelerators = true;
};

// The frames of spectrogram a backend made by makeInferenceBackend takes
// per run: dimension 2 of its model's input, 0 where it is not fixed.
std::size_t modelFrames(const std::shared_ptr<IInference>& inference);

// Loads ONNX Runtime if needed and builds the backend from plain model bytes.
// Empty name lists mean "take the model's own names"; an empty providerName
// keeps the fixed provider preference order.
std::shared_ptr<IInference> makeInferenceBackend(const void* modelData, std::size_t modelSize,
                                                 const std::vector<std::string>& inputNames,
                                                 const std::vector<std::string>& outputNames,
                                                 const std::string& providerName);
std::shared_ptr<IInference> makeInferenceBackend(const void* modelData, std::size_t modelSize,
                                                 const std::vector<std::string>& inputNames,
                                                 const std::vector<std::string>& outputNames,
                                                 const std::string& providerName, const SessionTuning& tuning);

}  // namespace tonwerk
