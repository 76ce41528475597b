// Function names the backend's log records carry. The provider walk is one
// step of building the backend, so its records use the constructor's name.
#pragma once

namespace tonwerk {

constexpr const char* kBackendConstructorName = "tonwerk::InferenceONNXImplMultiStem::InferenceONNXImplMultiStem";

}  // namespace tonwerk
