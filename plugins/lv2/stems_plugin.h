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

// The longest model path a patch message may carry, with its end: short
// enough for a worker job to fit the queues hosts give the worker.
constexpr std::size_t kMaxPath = 2048;

class StemsPlugin {
public:
    // Loads the bundle's model; throws when it cannot.
    StemsPlugin(std::string bundleModel, double sampleRate, const HostFeatures& host);
    ~StemsPlugin();
    StemsPlugin(const StemsPlugin&) = delete;
    StemsPlugin& operator=(const StemsPlugin&) = delete;

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
    // on the model at `path` (which becomes the chosen one). Null, without
    // loading, when a restore since `epoch` made the request stale. Throws
    // when the model does not load.
    std::unique_ptr<LiveSlot> buildSlot(SlotShape shape, const std::string& path = "",
                                        std::uint64_t epoch = 0);
    // Between runs on the audio thread: swaps `fresh` (built for `shape`, on
    // the model at `path` or the chosen one, at `epoch`) in, and returns
    // the slot to be freed off the audio thread: the one replaced, or
    // `fresh` itself when a restore made it stale. A null `fresh` is a
    // failed build; a failed shape is not asked for again until the wanted
    // one changes.
    LiveSlot* finishReload(LiveSlot* fresh, SlotShape shape, std::uint64_t epoch, std::string_view path);
    // On the audio thread: `slot` (null for none) goes to the worker to be
    // freed, now or, when the host's queue is full, at a later run.
    void freeLater(LiveSlot* slot);

private:
    SlotShape wantedShape() const;
    void requestReload();
    void readMessages();
    // The notify port says at its next chance that the model at `path` is in use.
    void modelChanged(std::string_view path);
    void readControls();
    void runPiece(std::uint32_t at, std::uint32_t frames);
    void reportStatus();

    std::string bundleModel_;
    std::uint32_t rate_;
    // Read by the worker while restore() may write it; never on the audio thread.
    mutable std::mutex modelMutex_;
    std::string chosenModel_;
    // Raised by each restore: worker answers from before it are stale.
    // Written under modelMutex_, between runs; declared before slot_, which
    // is built with it.
    std::uint64_t modelEpoch_ = 0;
    HostFeatures host_;
    PluginLog log_;
    bool offline_ = false;
    std::unique_ptr<LiveSlot> slot_;
    // The longest block a real-time run brought: a host that stated none
    // (or a shorter one) gets a slot that takes it whole.
    std::uint32_t longestBlock_ = 0;
    // A build asked of the worker and not answered yet, the shape whose
    // build failed last, a model a host asked for and not yet sent to the
    // worker, and a slot still to be freed there.
    bool reloadPending_ = false;
    SlotShape failed_{0, 0};
    std::array<char, kMaxPath> requestedPath_{};
    std::size_t requestedLength_ = 0;
    LiveSlot* toFree_ = nullptr;
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
