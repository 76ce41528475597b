// One instance of the plugin: the live adapter between the host's ports,
// with the buffers run() needs allocated up front.
#pragma once

#include "host_features.h"
#include "plugin_log.h"
#include "ports.h"
#include "stem_mix.h"
#include "tonwerk/tonwerk_live.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tonwerk::lv2 {

class StemsPlugin {
public:
    // Loads the bundle's model; throws when it cannot.
    StemsPlugin(std::string bundleModel, double sampleRate, const HostFeatures& host);

    void connect(std::uint32_t port, void* data);
    void activate();
    // Real-time safe unless the offline control is on: then it waits for
    // the model.
    void run(std::uint32_t frames);

    // Not while run() may be running. Replaces the model ("" is the
    // bundle's own); when the new one does not load, throws and keeps the
    // current one. The stream starts anew.
    void useModel(const std::string& path);
    // The path useModel() was given last.
    const std::string& chosenModel() const { return chosenModel_; }
    const HostFeatures& host() const { return host_; }
    PluginLog& log() { return log_; }

private:
    live::Adapter loadAdapter(const std::string& path) const;
    void readControls();
    void runPiece(std::uint32_t at, std::uint32_t frames);
    void reportStatus();

    std::string bundleModel_;
    std::string chosenModel_;
    HostFeatures host_;
    PluginLog log_;
    bool offline_ = false;
    live::Adapter adapter_;
    std::array<float*, kPortCount> ports_{};
    std::vector<float> input_;
    std::array<std::vector<float>, TW_OUTPUT_COUNT> outputs_;
    std::array<float*, TW_OUTPUT_COUNT> outputPointers_{};
    StemMix mix_;
};

}  // namespace tonwerk::lv2
