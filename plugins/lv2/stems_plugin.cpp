#include "stems_plugin.h"

#include "model_file.h"
#include "model_worker.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

namespace tonwerk::lv2 {
namespace {

// The rate the models are made for. At others they still run, but every
// frequency lands in another bin than the model learned it in.
constexpr double kModelRate = 44100.0;

}  // namespace

StemsPlugin::StemsPlugin(std::string bundleModel, double sampleRate, const HostFeatures& host)
    : bundleModel_(std::move(bundleModel)), host_(host), log_(host), adapter_(loadAdapter(bundleModel_, threads_)) {
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
        outputs_[s].assign(2 * std::size_t{host_.maxBlock}, 0.0F);
        outputPointers_[s] = outputs_[s].data();
    }
    input_.assign(2 * std::size_t{host_.maxBlock}, 0.0F);
    if (std::abs(sampleRate - kModelRate) > 0.5) {
        log_.warning("the model is made for 44100 Hz; at " + std::to_string(std::lround(sampleRate)) +
                     " Hz the stems are less clean");
    }
}

live::Adapter StemsPlugin::loadAdapter(const std::string& path, std::uint32_t threads) const {
    tw_live_settings settings = live::defaultSettings();
    settings.max_block = host_.maxBlock;
    settings.offline = offline_ ? 1 : 0;
    settings.threads = threads;
    return live::Adapter(readModelFile(path), settings);
}

void StemsPlugin::useModel(const std::string& path) {
    const std::lock_guard<std::mutex> lock(modelMutex_);
    adapter_ = loadAdapter(path.empty() ? bundleModel_ : path, threads_);
    chosenModel_ = path;
}

std::string StemsPlugin::chosenModel() const {
    const std::lock_guard<std::mutex> lock(modelMutex_);
    return chosenModel_;
}

std::unique_ptr<live::Adapter> StemsPlugin::buildAdapter(std::uint32_t threads) const {
    const std::lock_guard<std::mutex> lock(modelMutex_);
    return std::make_unique<live::Adapter>(loadAdapter(chosenModel_.empty() ? bundleModel_ : chosenModel_, threads));
}

void StemsPlugin::finishReload(live::Adapter* fresh, std::uint32_t threads) {
    reloadPending_ = false;
    if (fresh == nullptr) {
        failedThreads_ = threads;
        return;
    }
    std::swap(adapter_, *fresh);
    threads_ = threads;
    adapter_.setOffline(offline_);
}

void StemsPlugin::connect(std::uint32_t port, void* data) {
    if (port < kPortCount) ports_[port] = static_cast<float*>(data);
}

void StemsPlugin::activate() {
    const std::uint32_t threads = threadsControl();
    if (host_.schedule == nullptr && threads != threads_) {
        try {
            adapter_ = std::move(*buildAdapter(threads));
            threads_ = threads;
        } catch (const std::exception& e) {
            log_.error(std::string(e.what()) + "; keeping " + std::to_string(threads_) + " threads");
        }
    }
    adapter_.reset();
}

// The control as a count in range; without the port, the count in use.
std::uint32_t StemsPlugin::threadsControl() const {
    if (ports_[kThreads] == nullptr) return threads_;
    const long wanted = std::lround(*ports_[kThreads]);
    return static_cast<std::uint32_t>(std::clamp<long>(wanted, kMinThreads, kMaxThreads));
}

// A model load takes far too long for the audio thread: the host's worker
// builds the new adapter and finishReload() swaps it in.
void StemsPlugin::requestThreads(std::uint32_t threads) {
    if (threads == threads_ || threads == failedThreads_ || reloadPending_ || host_.schedule == nullptr) return;
    failedThreads_ = 0;  // the control moved on: the failed count may be tried again later
    reloadPending_ = scheduleBuild(*host_.schedule, threads);
}

void StemsPlugin::run(std::uint32_t frames) {
    readControls();
    for (std::uint32_t at = 0; at < frames;) {
        const std::uint32_t piece = std::min(frames - at, host_.maxBlock);
        runPiece(at, piece);
        at += piece;
    }
    reportStatus();
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
        adapter_.setOffline(offline);
    }
    requestThreads(threadsControl());
    Gains gains;
    for (std::size_t k = 0; k < kGainCount; ++k) gains[k] = *ports_[kFirstGain + k];
    mix_.setGains(gains);
}

void StemsPlugin::runPiece(std::uint32_t at, std::uint32_t frames) {
    const float* left = ports_[kInputLeft] + at;
    const float* right = ports_[kInputRight] + at;
    for (std::uint32_t i = 0; i < frames; ++i) {
        input_[2 * i] = left[i];
        input_[2 * i + 1] = right[i];
    }
    // The input is copied first, so hosts may hand the same buffer for
    // input and output. Pieces never exceed the adapter's block limit, the
    // one way process() fails with valid pointers.
    adapter_.process(input_.data(), outputPointers_.data(), frames);
    mix_.mix(outputPointers_.data(), frames, ports_[kOutputLeft] + at, ports_[kOutputRight] + at);
}

void StemsPlugin::reportStatus() {
    tw_live_latency latency{};
    std::uint64_t underruns = 0;
    tw_live_adapter_latency(adapter_.get(), &latency);
    tw_live_adapter_underruns(adapter_.get(), &underruns);
    *ports_[kLatency] = static_cast<float>(latency.total);
    *ports_[kUnderruns] = static_cast<float>(underruns);
}

}  // namespace tonwerk::lv2
