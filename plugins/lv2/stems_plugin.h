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
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tonwerk::lv2 {

class StemsPlugin {
public:
    // Loads the bundle's model; throws when it cannot.
    StemsPlugin(std::string bundleModel, double sampleRate, const HostFeatures& host);

    void connect(std::uint32_t port, void* data);
    // Off the audio thread: also applies a changed thread count when the
    // host has no worker to do it during the run.
    void activate();
    // Real-time safe, except while the host free-wheels with the offline
    // control on: then it waits for the model, as a bounce must.
    void run(std::uint32_t frames);

    // Not while run() may be running. Replaces the model ("" is the
    // bundle's own); when the new one does not load, throws and keeps the
    // current one. The stream starts anew.
    void useModel(const std::string& path);
    // The path useModel() was given last.
    std::string chosenModel() const;
    const HostFeatures& host() const { return host_; }
    PluginLog& log() { return log_; }

    // The host's worker thread: the chosen model with `threads` threads
    // per run. Throws when it does not load.
    std::unique_ptr<live::Adapter> buildAdapter(std::uint32_t threads) const;
    // Between runs on the audio thread: swaps `fresh` in (the stream starts
    // anew) and leaves the adapter it replaces in `fresh`, to be freed off
    // the audio thread. A null `fresh` is a failed build of `threads`,
    // which is not asked for again until the control changes.
    void finishReload(live::Adapter* fresh, std::uint32_t threads);

private:
    live::Adapter loadAdapter(const std::string& path, std::uint32_t threads) const;
    std::uint32_t threadsControl() const;
    void requestThreads(std::uint32_t threads);
    void readControls();
    void runPiece(std::uint32_t at, std::uint32_t frames);
    void reportStatus();

    std::string bundleModel_;
    // Read by the worker while restore() may write it; never on the audio thread.
    mutable std::mutex modelMutex_;
    std::string chosenModel_;
    HostFeatures host_;
    PluginLog log_;
    bool offline_ = false;
    std::uint32_t threads_ = kMinThreads;
    // A build asked of the worker and not answered yet, and the count whose
    // build failed last.
    bool reloadPending_ = false;
    std::uint32_t failedThreads_ = 0;
    live::Adapter adapter_;
    std::array<float*, kPortCount> ports_{};
    std::vector<float> input_;
    std::array<std::vector<float>, TW_OUTPUT_COUNT> outputs_;
    std::array<float*, TW_OUTPUT_COUNT> outputPointers_{};
    StemMix mix_;
};

}  // namespace tonwerk::lv2
