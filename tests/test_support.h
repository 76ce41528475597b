// Helpers shared by the test programs: generated models, captured log output,
// the identity model as a backend.
#pragma once

#include "inference/inference.h"
#include "test_models.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk::test {

// M_PI is not standard C++ and some C libraries (mingw's) leave it out.
constexpr double kPi = 3.14159265358979323846;

// The message of the std::runtime_error `call` throws; "no error" if it returns.
template <typename Call>
std::string runtimeErrorOf(Call&& call) {
    try {
        call();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

// What `emit` writes to standard output, where log records go.
template <typename Emit>
std::string stdoutOf(Emit&& emit) {
    testing::internal::CaptureStdout();
    emit();
    return testing::internal::GetCapturedStdout();
}

inline std::vector<std::string> linesWith(const std::string& text, const std::string& needle) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.find(needle) != std::string::npos) lines.push_back(line);
    }
    return lines;
}

// identity.onnx with every stem selected: vocals = input, the rest silent. By
// default on the CPU; an empty provider name walks every available provider.
inline std::shared_ptr<IInference> identityBackend(const std::string& providerName = "CPUExecutionProvider") {
    const auto bytes = readModel("identity.onnx");
    auto backend = makeInferenceBackend(bytes.data(), bytes.size(), {},
                                        {"vocals_output", "drum_output", "piano_output", "acoustic_guitar_output",
                                         "electric_guitar_output", "bass_output"},
                                        providerName);
    setSelectedStems(backend, StemFlags{true, true, true, true, true, true});
    return backend;
}

}  // namespace tonwerk::test
