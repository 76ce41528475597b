// The plugin's C entry points: lv2_descriptor() and the callbacks behind it.
// No exception may leave here into the host.
#include "host_features.h"
#include "model_file.h"
#include "model_state.h"
#include "model_worker.h"
#include "plugin_log.h"
#include "stems_plugin.h"

#include <lv2/core/lv2.h>

#include <cstring>
#include <exception>

namespace {

using tonwerk::lv2::StemsPlugin;

StemsPlugin& plugin(LV2_Handle instance) {
    return *static_cast<StemsPlugin*>(instance);
}

LV2_Handle instantiate(const LV2_Descriptor* /*descriptor*/, double rate, const char* bundlePath,
                       const LV2_Feature* const* features) {
    const tonwerk::lv2::HostFeatures host = tonwerk::lv2::readHostFeatures(features);
    try {
        return new StemsPlugin(tonwerk::lv2::bundleModelPath(bundlePath), rate, host);
    } catch (const std::exception& e) {
        tonwerk::lv2::PluginLog(host).error(e.what());
        return nullptr;
    }
}

void connectPort(LV2_Handle instance, uint32_t port, void* data) {
    plugin(instance).connect(port, data);
}

void activate(LV2_Handle instance) {
    plugin(instance).activate();
}

void run(LV2_Handle instance, uint32_t frames) {
    plugin(instance).run(frames);
}

void cleanup(LV2_Handle instance) {
    delete &plugin(instance);
}

const void* extensionData(const char* uri) {
    if (std::strcmp(uri, LV2_STATE__interface) == 0) return tonwerk::lv2::stateInterface();
    if (std::strcmp(uri, LV2_WORKER__interface) == 0) return tonwerk::lv2::workerInterface();
    return nullptr;
}

const LV2_Descriptor kDescriptor = {TONWERK_LV2_URI, instantiate, connectPort, activate,
                                    run,             nullptr,     cleanup,     extensionData};

}  // namespace

extern "C" LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index) {
    return index == 0 ? &kDescriptor : nullptr;
}
