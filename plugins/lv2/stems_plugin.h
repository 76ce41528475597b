// One instance of the plugin: the live adapter between the host's ports,
// with the buffers run() needs allocated up front.
#pragma once

#include "host_features.h"
#include "live_slot.h"
#include "model_messages.h"
#include "plugin_log.h"
#include "ports.h"
#include "stem_mix.h"

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tonwerk::lv2 {

// The longest model path a patch message may carry.
constexpr std::size_t kMaxPath = 4096;

class StemsPlugin {
public:
    // Loads the bundle's model; throws when it cannot.
    StemsPlugin(std::string bundleModel, double sampleRate, const HostFeatures& host);

    void connect(std::uint32_t port, void* data);
    // Off the audio thread: also applies a changed thread count or block
    // length when the host has no worker to do it during the run.
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

    // The host's worker thread: a slot of `shape` on the chosen model, or
    // on the model at `path` (which becomes the chosen one). Throws when it
    // does not load.
    std::unique_ptr<LiveSlot> buildSlot(SlotShape shape, const std::string& path = "");
    // Between runs on the audio thread: swaps `fresh` in (the stream starts
    // anew) and returns the slot it replaced, to be freed off the audio
    // thread. A null `fresh` is a failed build of `shape`, which is not
    // asked for again until what it was asked for changes.
    LiveSlot* finishReload(LiveSlot* fresh, SlotShape shape);
    // Between runs on the audio thread, after finishReload() took a slot on
    // the model at `path`: the notify port says so at the next run.
    void modelChanged(std::string_view path);

private:
    SlotShape wantedShape() const;
    void requestShape();
    void readMessages();
    void readControls();
    void runPiece(std::uint32_t at, std::uint32_t frames);
    void reportStatus();

    std::string bundleModel_;
    std::uint32_t rate_;
    // Read by the worker while restore() may write it; never on the audio thread.
    mutable std::mutex modelMutex_;
    std::string chosenModel_;
    HostFeatures host_;
    PluginLog log_;
    bool offline_ = false;
    std::unique_ptr<LiveSlot> slot_;
    // The longest block a real-time run brought: a host that stated none
    // (or a shorter one) gets a slot that takes it whole.
    std::uint32_t longestBlock_ = 0;
    // A build asked of the worker and not answered yet, and the shape whose
    // build failed last.
    bool reloadPending_ = false;
    SlotShape failed_{0, 0};
    // Patch messages, with a URID map only. The path in use as the audio
    // thread knows it, and whether the notify port owes a message.
    std::optional<ModelMessages> messages_;
    const LV2_Atom_Sequence* control_ = nullptr;
    LV2_Atom_Sequence* notify_ = nullptr;
    std::array<char, kMaxPath> playingPath_{};
    bool notifyPending_ = false;
    std::array<float*, kPortCount> ports_{};
    StemMix mix_;
};

}  // namespace tonwerk::lv2
