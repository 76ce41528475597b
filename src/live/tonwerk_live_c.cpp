// The C interface of the live library.
#include "capi/status.h"
#include "common/logging.h"
#include "live/live_engine.h"
#include "live/host_rate_adapter.h"
#include "pipeline/stream_layout.h"
#include "tonwerk/tonwerk_live.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using tonwerk::capi::fail;
using tonwerk::capi::guarded;

constexpr std::uint32_t kMostThreads = 64;

// Logging is set up before the model loads, so that its problems are
// printed, and goes after everything that may still log.
struct Model {
    std::unique_ptr<tonwerk::log::LogSetup> logging;
    std::unique_ptr<tonwerk::LiveEngine> engine;
};

tonwerk::StemFlags stemFlags(std::uint32_t mask) {
    tonwerk::StemFlags flags;
    flags.vocals = (mask & TW_STEM_VOCALS) != 0;
    flags.drum = (mask & TW_STEM_DRUM) != 0;
    flags.piano = (mask & TW_STEM_PIANO) != 0;
    flags.acousticGuitar = (mask & TW_STEM_ACOUSTIC_GUITAR) != 0;
    flags.electricGuitar = (mask & TW_STEM_ELECTRIC_GUITAR) != 0;
    flags.bass = (mask & TW_STEM_BASS) != 0;
    return flags;
}

// The smallest record a host may pass: the first one that carried its size.
// A version that adds fields keeps this and gives older hosts the defaults.
constexpr std::size_t kOldestSettingsSize = sizeof(tw_live_settings);

// Copies the fields the host's record has over `settings`, which holds the
// defaults for any the host's header did not have yet.
void takeFromHost(const tw_live_settings& given, tw_live_settings& settings) {
    if (given.size < kOldestSettingsSize || given.size > sizeof(tw_live_settings)) {
        throw std::invalid_argument("live: settings.size is " + std::to_string(given.size) + ", this library reads " +
                                    std::to_string(kOldestSettingsSize) + " to " +
                                    std::to_string(sizeof(tw_live_settings)) +
                                    " bytes: fill the settings with tw_live_default_settings first");
    }
    std::memcpy(&settings, &given, given.size);
    settings.size = sizeof(tw_live_settings);
}

// Checks everything before the model loads, which takes a while.
tw_live_settings checkedSettings(const tw_live_settings* given) {
    tw_live_settings settings;
    tw_live_default_settings(&settings);
    if (given != nullptr) takeFromHost(*given, settings);
    if (const std::string problem = tonwerk::capi::stemMaskProblem(settings.stem_mask); !problem.empty()) {
        throw std::invalid_argument(problem);
    }
    tonwerk::checkLiveSettings({settings.update, settings.lookahead});
    if (settings.threads < 1 || settings.threads > kMostThreads) {
        throw std::invalid_argument("live: threads must be between 1 and " + std::to_string(kMostThreads) +
                                    ", got " + std::to_string(settings.threads));
    }
    tonwerk::HostRateAdapter::checkRate(settings.sample_rate);
    return settings;
}

// A live instance shares the machine with the host's audio threads and
// with other instances: it takes the threads it was given, sleeps between
// runs, and tries a GPU only when asked, so that a machine without one
// logs no failed attempt.
tonwerk::SessionTuning tuningOf(const tw_live_settings& settings) {
    tonwerk::SessionTuning tuning;
    tuning.intraOpThreads = static_cast<int>(settings.threads);
    tuning.spinning = false;
    tuning.tryAccelerators = settings.gpu != 0;
    return tuning;
}

Model loadModel(const void* bytes, std::size_t size, const tw_live_settings& settings) {
    Model model;
    model.logging = tonwerk::log::LogSetup::trySetUp();
    auto backend =
        tonwerk::makeInferenceBackend(bytes, size, {}, tonwerk::layout::stemOutputNames(), "", tuningOf(settings));
    tonwerk::setSelectedStems(backend, stemFlags(settings.stem_mask));
    model.engine = std::make_unique<tonwerk::LiveEngine>(std::move(backend),
                                                         tonwerk::LiveSettings{settings.update, settings.lookahead});
    return model;
}

// TW_OK when the input and all eight output buffers are there.
tw_status checkBuffers(const char* function, const float* input, float* const* outputs) {
    if (input == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, function, "input is NULL");
    if (outputs == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, function, "outputs is NULL");
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
        if (outputs[s] == nullptr) {
            return fail(TW_ERROR_INVALID_ARGUMENT, function, "outputs[" + std::to_string(s) + "] is NULL");
        }
    }
    return TW_OK;
}

// Tests of hosts (the plugin in lv2apply or jalv) hold chosen model blocks
// back on any machine: "3,7-9" names input blocks 3, 7, 8 and 9 of each
// stream. TONWERK_LIVE_TEST_STALL makes them late even offline;
// TONWERK_LIVE_TEST_HOLD holds them until the adapter decides on them, so
// they are missed exactly when it does not wait.
std::function<bool(std::uint64_t)> blocksFromEnvironment(const char* variable) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') return {};
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    std::istringstream list(text);
    for (std::string item; std::getline(list, item, ',');) {
        const std::size_t dash = item.find('-');
        const std::uint64_t first = std::stoull(item.substr(0, dash));
        ranges.emplace_back(first, dash == std::string::npos ? first : std::stoull(item.substr(dash + 1)));
    }
    return [ranges](std::uint64_t block) {
        return std::any_of(ranges.begin(), ranges.end(),
                           [block](const auto& range) { return block >= range.first && block <= range.second; });
    };
}

tw_live_latency latencyOf(std::size_t lookahead, std::size_t total) {
    return tw_live_latency{lookahead, total - lookahead, total};
}

}  // namespace

struct tw_live_engine {
    Model model;
};

struct tw_live_adapter {
    std::unique_ptr<tonwerk::log::LogSetup> logging;
    std::unique_ptr<tonwerk::HostRateAdapter> adapter;
    ~tw_live_adapter() { adapter.reset(); }  // the worker stops before logging goes
};

extern "C" {

void tw_live_settings_init(tw_live_settings* settings, size_t size) {
    if (settings == nullptr) return;
    const tw_live_settings defaults{sizeof(tw_live_settings), TW_STEMS_ALL, 4, 4, 512, 0, 1, 0,
                                    tonwerk::HostRateAdapter::kModelRate};
    // A host built against an older header has a smaller record: fill just that.
    const std::size_t filled = std::min(size, sizeof(tw_live_settings));
    std::memcpy(settings, &defaults, filled);
    if (filled >= sizeof(settings->size)) settings->size = static_cast<std::uint32_t>(filled);
}

const char* tw_live_last_error(void) {
    return tonwerk::capi::lastError();
}

tw_status tw_live_engine_create(const void* bytes, size_t size, const tw_live_settings* settings,
                                tw_live_engine** engine) {
    static const char* const kFunction = "tw_live_engine_create";
    if (engine == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "engine is NULL");
    *engine = nullptr;
    if (bytes == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "bytes is NULL");
    return guarded(kFunction, [&] {
        const tw_live_settings checked = checkedSettings(settings);
        if (checked.sample_rate != tonwerk::HostRateAdapter::kModelRate) {
            throw std::invalid_argument("live: an engine runs at the model's 44100 Hz, not " +
                                        std::to_string(checked.sample_rate) + "; an adapter converts other rates");
        }
        *engine = new tw_live_engine{loadModel(bytes, size, checked)};
        return TW_OK;
    });
}

void tw_live_engine_destroy(tw_live_engine* engine) {
    if (engine != nullptr) engine->model.engine.reset();
    delete engine;
}

tw_status tw_live_engine_latency(const tw_live_engine* engine, tw_live_latency* latency) {
    static const char* const kFunction = "tw_live_engine_latency";
    if (engine == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "engine is NULL");
    if (latency == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "latency is NULL");
    const tonwerk::LiveEngine& live = *engine->model.engine;
    *latency = latencyOf(live.lookaheadFrames(), live.latencyFrames());
    return TW_OK;
}

tw_status tw_live_engine_block_frames(const tw_live_engine* engine, size_t* frames) {
    static const char* const kFunction = "tw_live_engine_block_frames";
    if (engine == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "engine is NULL");
    if (frames == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "frames is NULL");
    *frames = engine->model.engine->blockFrames();
    return TW_OK;
}

tw_status tw_live_engine_process(tw_live_engine* engine, const float* input, float* const* outputs) {
    static const char* const kFunction = "tw_live_engine_process";
    if (engine == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "engine is NULL");
    if (const tw_status status = checkBuffers(kFunction, input, outputs); status != TW_OK) return status;
    return guarded(kFunction, [&] {
        engine->model.engine->process(input, outputs);
        return TW_OK;
    });
}

tw_status tw_live_engine_reset(tw_live_engine* engine) {
    static const char* const kFunction = "tw_live_engine_reset";
    if (engine == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "engine is NULL");
    return guarded(kFunction, [&] {
        engine->model.engine->reset();
        return TW_OK;
    });
}

tw_status tw_live_adapter_create(const void* bytes, size_t size, const tw_live_settings* settings,
                                 tw_live_adapter** adapter) {
    static const char* const kFunction = "tw_live_adapter_create";
    if (adapter == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "adapter is NULL");
    *adapter = nullptr;
    if (bytes == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "bytes is NULL");
    return guarded(kFunction, [&] {
        const tw_live_settings checked = checkedSettings(settings);
        Model model = loadModel(bytes, size, checked);
        auto live = std::make_unique<tw_live_adapter>();
        live->logging = std::move(model.logging);
        live->adapter = std::make_unique<tonwerk::HostRateAdapter>(
            std::move(model.engine),
            tonwerk::AdapterSettings{checked.max_block, checked.offline != 0,
                                     blocksFromEnvironment("TONWERK_LIVE_TEST_STALL"),
                                     blocksFromEnvironment("TONWERK_LIVE_TEST_HOLD")},
            checked.sample_rate);
        *adapter = live.release();
        return TW_OK;
    });
}

void tw_live_adapter_destroy(tw_live_adapter* adapter) {
    delete adapter;
}

tw_status tw_live_adapter_latency(const tw_live_adapter* adapter, tw_live_latency* latency) {
    static const char* const kFunction = "tw_live_adapter_latency";
    if (adapter == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "adapter is NULL");
    if (latency == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "latency is NULL");
    *latency = latencyOf(adapter->adapter->lookaheadFrames(), adapter->adapter->latencyFrames());
    return TW_OK;
}

tw_status tw_live_adapter_process(tw_live_adapter* adapter, const float* input, float* const* outputs,
                                  size_t frames) {
    static const char* const kFunction = "tw_live_adapter_process";
    if (adapter == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "adapter is NULL");
    if (frames == 0) return TW_OK;
    if (const tw_status status = checkBuffers(kFunction, input, outputs); status != TW_OK) return status;
    if (frames > adapter->adapter->maxBlock()) {
        return fail(TW_ERROR_BUFFER_OVERFLOW, kFunction,
                    "frames " + std::to_string(frames) + " is more than max_block " +
                        std::to_string(adapter->adapter->maxBlock()) + "; nothing was taken");
    }
    adapter->adapter->process(input, outputs, frames);
    return TW_OK;
}

tw_status tw_live_adapter_reset(tw_live_adapter* adapter) {
    if (adapter == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, "tw_live_adapter_reset", "adapter is NULL");
    adapter->adapter->reset();
    return TW_OK;
}

tw_status tw_live_adapter_set_offline(tw_live_adapter* adapter, int offline) {
    if (adapter == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, "tw_live_adapter_set_offline", "adapter is NULL");
    adapter->adapter->setOffline(offline != 0);
    return TW_OK;
}

tw_status tw_live_adapter_underruns(const tw_live_adapter* adapter, uint64_t* frames) {
    static const char* const kFunction = "tw_live_adapter_underruns";
    if (adapter == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "adapter is NULL");
    if (frames == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "frames is NULL");
    *frames = adapter->adapter->underrunFrames();
    return TW_OK;
}

}  // extern "C"
