#include "stems_plugin.h"

#include "model_file.h"
#include "model_worker.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

namespace tonwerk::lv2 {
StemsPlugin::StemsPlugin(std::string bundleModel, double sampleRate, const HostFeatures& host)
    : bundleModel_(std::move(bundleModel)),
      rate_(static_cast<std::uint32_t>(std::lround(sampleRate))),
      host_(host),
      log_(host),
      slot_(buildSlot({kMinThreads, host.maxBlock})) {
    if (host.map != nullptr) messages_.emplace(host.map);
    modelChanged(bundleModel_);
    if (rate_ != 44100) {
        log_.note("converting " + std::to_string(rate_) + " Hz to the model's 44100 Hz and back; latency " +
                  std::to_string(slot_->adapter.latency().total) + " frames");
    }
}

void StemsPlugin::useModel(const std::string& path) {
    const std::lock_guard<std::mutex> lock(modelMutex_);
    slot_ = std::make_unique<LiveSlot>(readModelFile(path.empty() ? bundleModel_ : path), slot_->shape, rate_,
                                       offline_);
    chosenModel_ = path;
    ++modelEpoch_;
    modelChanged(path.empty() ? bundleModel_ : path);
}

StemsPlugin::~StemsPlugin() {
    delete toFree_;
}

std::string StemsPlugin::chosenModel() const {
    const std::lock_guard<std::mutex> lock(modelMutex_);
    return chosenModel_;
}

std::unique_ptr<LiveSlot> StemsPlugin::buildSlot(SlotShape shape, const std::string& path, std::uint64_t epoch) {
    const std::lock_guard<std::mutex> lock(modelMutex_);
    if (epoch != modelEpoch_) return nullptr;
    const std::string& file = !path.empty() ? path : chosenModel_.empty() ? bundleModel_ : chosenModel_;
    auto slot = std::make_unique<LiveSlot>(readModelFile(file), shape, rate_, false);
    if (!path.empty()) chosenModel_ = path;
    return slot;
}

void StemsPlugin::modelChanged(std::string_view path) {
    const std::size_t length = std::min(path.size(), kMaxPath - 1);
    std::copy_n(path.data(), length, playingPath_.begin());
    playingPath_[length] = '\0';
    notifyPending_ = true;
}

LiveSlot* StemsPlugin::finishReload(LiveSlot* fresh, SlotShape shape, std::uint64_t epoch, std::string_view path) {
    reloadPending_ = false;
    if (epoch != modelEpoch_) return fresh;  // a restore came in between: its model stays
    if (fresh == nullptr) {
        if (path.empty()) failed_ = shape;
        return nullptr;
    }
    LiveSlot* replaced = slot_.release();
    slot_.reset(fresh);
    slot_->adapter.setOffline(offline_);
    if (!path.empty()) modelChanged(path);
    return replaced;
}

void StemsPlugin::freeLater(LiveSlot* slot) {
    if (slot == nullptr) return;
    if (toFree_ == nullptr && host_.schedule != nullptr && scheduleDiscard(*host_.schedule, slot)) return;
    if (toFree_ != nullptr) {
        delete slot;  // a second one while the host's queue stays full: late, rather than lost
        return;
    }
    toFree_ = slot;
}

void StemsPlugin::connect(std::uint32_t port, void* data) {
    if (port == kControl) {
        control_ = static_cast<const LV2_Atom_Sequence*>(data);
    } else if (port == kNotify) {
        notify_ = static_cast<LV2_Atom_Sequence*>(data);
    } else if (port < kPortCount) {
        ports_[port] = static_cast<float*>(data);
    }
}

void StemsPlugin::activate() {
    const SlotShape wanted = wantedShape();
    if (host_.schedule == nullptr && wanted != slot_->shape) {
        try {
            slot_ = buildSlot(wanted, "", modelEpoch_);
            slot_->adapter.setOffline(offline_);
        } catch (const std::exception& e) {
            log_.error(std::string(e.what()) + "; keeping the model session in use");
        }
    }
    slot_->adapter.reset();
}

// The thread control in range (without the port, the count in use), and a
// block limit that takes the longest real-time block seen whole.
SlotShape StemsPlugin::wantedShape() const {
    SlotShape wanted = slot_->shape;
    if (ports_[kThreads] != nullptr) {
        const long threads = std::lround(*ports_[kThreads]);
        wanted.threads = static_cast<std::uint32_t>(std::clamp<long>(threads, kMinThreads, kMaxThreads));
    }
    wanted.maxBlock = std::max(wanted.maxBlock, longestBlock_);
    return wanted;
}

// A model load takes far too long for the audio thread: the host's worker
// builds the new slot and finishReload() swaps it in. One build at a time;
// a model the host chose goes with the shape wanted now.
void StemsPlugin::requestReload() {
    if (reloadPending_ || host_.schedule == nullptr) return;
    const SlotShape wanted = wantedShape();
    const bool reshape = wanted != slot_->shape && wanted != failed_;
    if (!reshape && requestedLength_ == 0) return;
    if (reshape) failed_ = SlotShape{0, 0};  // asked for something else now: a failed shape may be tried again later
    // Pending before the call: a host may run the job, and answer it, within it.
    reloadPending_ = true;
    if (scheduleBuild(*host_.schedule, wanted, std::string_view(requestedPath_.data(), requestedLength_), modelEpoch_)) {
        requestedLength_ = 0;
    } else {
        reloadPending_ = false;
    }
}

void StemsPlugin::run(std::uint32_t frames) {
    readControls();
    // Cut into the slot's blocks, a long host period would reach the
    // worker all at once, with too little time left for the model: in real
    // time, the next slot takes it whole.
    if (!offline_ && frames > slot_->shape.maxBlock) {
        longestBlock_ = std::min(std::max(longestBlock_, frames), kLargestMaxBlock);
    }
    readMessages();
    requestReload();
    if (toFree_ != nullptr && host_.schedule != nullptr && scheduleDiscard(*host_.schedule, toFree_)) {
        toFree_ = nullptr;
    }
    for (std::uint32_t at = 0; at < frames;) {
        const std::uint32_t piece = std::min(frames - at, slot_->shape.maxBlock);
        runPiece(at, piece);
        at += piece;
    }
    reportStatus();
}

// A model chosen in the host loads on its worker (not at all without one:
// then the state interface is the way); the notify port answers patch:Get
// and reports each model taken into use.
void StemsPlugin::readMessages() {
    if (!messages_) return;
    const ModelRequests requests = messages_->read(control_);
    if (!requests.path.empty() && requests.path.size() < kMaxPath) {
        std::copy(requests.path.begin(), requests.path.end(), requestedPath_.begin());
        requestedLength_ = requests.path.size();
    }
    notifyPending_ = notifyPending_ || requests.get;
    // A message that does not fit the host's buffer waits for the next run.
    const bool written =
        messages_->write(notify_, notifyPending_ ? std::string_view(playingPath_.data()) : std::string_view());
    notifyPending_ = notifyPending_ && !written;
}

void StemsPlugin::readControls() {
    // A host bouncing faster than real time must wait for the model as a
    // render does, or the bounce would hold the dry input where it is late.
    // Waiting at any other time would break the hard real-time promise, so
    // the offline control counts only while the host free-wheels.
    const bool freeWheeling = ports_[kFreeWheel] != nullptr && *ports_[kFreeWheel] >= 0.5F;
    const bool offline = freeWheeling && *ports_[kOffline] >= 0.5F;
    if (offline != offline_) {
        offline_ = offline;
        slot_->adapter.setOffline(offline);
    }
    Gains gains;
    for (std::size_t k = 0; k < kGainCount; ++k) gains[k] = *ports_[kFirstGain + k];
    mix_.setGains(gains);
}

void StemsPlugin::runPiece(std::uint32_t at, std::uint32_t frames) {
    const float* left = ports_[kInputLeft] + at;
    const float* right = ports_[kInputRight] + at;
    std::vector<float>& input = slot_->input;
    for (std::uint32_t i = 0; i < frames; ++i) {
        input[2 * i] = left[i];
        input[2 * i + 1] = right[i];
    }
    // The input is copied first, so hosts may hand the same buffer for
    // input and output. Pieces never exceed the adapter's block limit, the
    // one way process() fails with valid pointers.
    slot_->adapter.process(input.data(), slot_->pointers.data(), frames);
    mix_.mix(slot_->pointers.data(), frames, ports_[kOutputLeft] + at, ports_[kOutputRight] + at);
}

void StemsPlugin::reportStatus() {
    tw_live_latency latency{};
    std::uint64_t underruns = 0;
    tw_live_adapter_latency(slot_->adapter.get(), &latency);
    tw_live_adapter_underruns(slot_->adapter.get(), &underruns);
    *ports_[kLatency] = static_cast<float>(latency.total);
    *ports_[kUnderruns] = static_cast<float>(underruns);
}

}  // namespace tonwerk::lv2
