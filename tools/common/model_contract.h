// What a separation model must look like for the library to run it, and a
// check that names every way a model differs from that.
#pragma once

#include "onnx_interface.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tonwerk::tools {

// Input 0, the packed spectrogram: batch 1, real and imaginary planes of two
// channels, 256 frames, 2048 bins.
inline const std::string contractSpectrumInput = "unified_input";
inline constexpr std::array<std::int64_t, 4> contractTensorShape = {1, 4, 256, 2048};

// Inputs 1 to 6, bool [1] each, in the library's flag order.
inline const std::array<std::string, 6> contractFlagInputs = {
    "vocals_flag", "drum_flag", "bass_flag", "piano_flag", "acoustic_guitar_flag", "electric_guitar_flag"};

// The outputs the library fetches by name; their order in the file is free.
inline const std::array<std::string, 6> contractOutputs = {
    "vocals_output",          "drum_output",           "piano_output",
    "acoustic_guitar_output", "electric_guitar_output", "bass_output"};

// One plain sentence per violation; empty when the model fits.
std::vector<std::string> checkModelContract(const OnnxInterface& model);

// Same for serialized bytes (already unscrambled). Bytes that are not an
// ONNX model give a single violation saying so.
std::vector<std::string> checkModelBytes(const unsigned char* data, std::size_t size);

}  // namespace tonwerk::tools
