// Tonwerk Multistem live, C++ interface: thin owners of the C handles of
// tonwerk_live.h, which documents latency, threading, units and outputs.
// Header only, so it works with any compiler the C interface works with.
//
//   tonwerk::live::Adapter live(modelBytes, settings);   // throws on failure
//   host.reportLatency(live.latency().total);
//   // audio callback:
//   live.process(in, outs, frames);                     // noexcept
#pragma once

#include "tonwerk_live.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tonwerk::live {

// Thrown by constructors and non-real-time calls; the status is kept.
class Error : public std::runtime_error {
public:
    Error(tw_status status, const char* message) : std::runtime_error(message), status_(status) {}
    tw_status status() const { return status_; }

private:
    tw_status status_;
};

inline void check(tw_status status) {
    if (status != TW_OK) throw Error(status, tw_live_last_error());
}

inline tw_live_settings defaultSettings() {
    tw_live_settings settings;
    tw_live_default_settings(&settings);
    return settings;
}

// Owns a C handle; movable, not copyable.
template <typename Handle, void (*Destroy)(Handle*)>
class Owner {
public:
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    Owner(Owner&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Owner& operator=(Owner&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Owner() { Destroy(handle_); }
    Handle* get() const { return handle_; }

protected:
    Owner() = default;
    // One of the C interface's getters, `status getter(handle, Value*)`.
    template <typename Value, typename Getter>
    Value query(Getter getter) const {
        Value value{};
        check(getter(handle_, &value));
        return value;
    }
    Handle* handle_ = nullptr;
};

// Runs the model on the calling thread, one block at a time.
class Engine : public Owner<tw_live_engine, tw_live_engine_destroy> {
public:
    explicit Engine(const std::vector<unsigned char>& model, const tw_live_settings& settings = defaultSettings()) {
        check(tw_live_engine_create(model.data(), model.size(), &settings, &handle_));
    }
    tw_live_latency latency() const { return query<tw_live_latency>(tw_live_engine_latency); }
    std::size_t blockFrames() const { return query<std::size_t>(tw_live_engine_block_frames); }
    // blockFrames() interleaved stereo frames in, as many of every output out.
    void process(const float* input, float* const* outputs) { check(tw_live_engine_process(handle_, input, outputs)); }
    void reset() { check(tw_live_engine_reset(handle_)); }
};

// For audio callbacks: any block up to max_block, a fixed latency.
class Adapter : public Owner<tw_live_adapter, tw_live_adapter_destroy> {
public:
    explicit Adapter(const std::vector<unsigned char>& model, const tw_live_settings& settings = defaultSettings()) {
        check(tw_live_adapter_create(model.data(), model.size(), &settings, &handle_));
    }
    tw_live_latency latency() const { return query<tw_live_latency>(tw_live_adapter_latency); }
    // Real-time safe; false (with tw_live_last_error()) only for bad arguments.
    bool process(const float* input, float* const* outputs, std::size_t frames) noexcept {
        return tw_live_adapter_process(handle_, input, outputs, frames) == TW_OK;
    }
    void reset() noexcept { tw_live_adapter_reset(handle_); }
    void setOffline(bool offline) noexcept { tw_live_adapter_set_offline(handle_, offline ? 1 : 0); }
    std::uint64_t underruns() const { return query<std::uint64_t>(tw_live_adapter_underruns); }
};

}  // namespace tonwerk::live
