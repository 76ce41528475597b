#include "model_state.h"

#include "stems_plugin.h"

#include <lv2/atom/atom.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

namespace tonwerk::lv2 {
namespace {

// The property holding the model's path (an atom:Path); absent for the
// bundle's own model.
constexpr const char* kModelProperty = TONWERK_LV2_URI "#model";

LV2_URID urid(const HostFeatures& host, const char* uri) {
    return host.map->map(host.map->handle, uri);
}

// Through the host's path map (the call's own, else the one given at
// instantiation): abstract paths keep sessions movable. Without one the
// path is kept as it is.
std::string mappedPath(const std::string& path, bool toAbstract, const LV2_Feature* const* features,
                       const HostFeatures& host) {
    auto* map = feature<LV2_State_Map_Path>(features, LV2_STATE__mapPath);
    auto* freePath = feature<LV2_State_Free_Path>(features, LV2_STATE__freePath);
    map = map != nullptr ? map : host.mapPath;
    freePath = freePath != nullptr ? freePath : host.freePath;
    if (map == nullptr) return path;
    char* mapped = toAbstract ? map->abstract_path(map->handle, path.c_str())
                              : map->absolute_path(map->handle, path.c_str());
    if (mapped == nullptr) return path;
    std::string result = mapped;
    if (freePath != nullptr) {
        freePath->free_path(freePath->handle, mapped);
    } else {
        std::free(mapped);
    }
    return result;
}

LV2_State_Status save(LV2_Handle instance, LV2_State_Store_Function store, LV2_State_Handle handle,
                      uint32_t /*flags*/, const LV2_Feature* const* features) {
    const auto& plugin = *static_cast<StemsPlugin*>(instance);
    const HostFeatures& host = plugin.host();
    if (host.map == nullptr) return LV2_STATE_ERR_NO_FEATURE;
    if (plugin.chosenModel().empty()) return LV2_STATE_SUCCESS;
    const std::string path = mappedPath(plugin.chosenModel(), true, features, host);
    return store(handle, urid(host, kModelProperty), path.c_str(), path.size() + 1,
                 urid(host, LV2_ATOM__Path), LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE);
}

LV2_State_Status restore(LV2_Handle instance, LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle,
                         uint32_t /*flags*/, const LV2_Feature* const* features) {
    auto& plugin = *static_cast<StemsPlugin*>(instance);
    const HostFeatures& host = plugin.host();
    if (host.map == nullptr) return LV2_STATE_ERR_NO_FEATURE;
    std::size_t size = 0;
    uint32_t type = 0;
    uint32_t valueFlags = 0;
    const void* value = retrieve(handle, urid(host, kModelProperty), &size, &type, &valueFlags);
    if (value != nullptr && type != urid(host, LV2_ATOM__Path)) return LV2_STATE_ERR_BAD_TYPE;
    // No entry: a state saved with the bundle's model.
    const auto* text = static_cast<const char*>(value);
    const std::string path =
        text == nullptr ? "" : mappedPath(std::string(text, strnlen(text, size)), false, features, host);
    if (path == plugin.chosenModel()) return LV2_STATE_SUCCESS;
    try {
        plugin.useModel(path);
    } catch (const std::exception& e) {
        plugin.log().error(std::string(e.what()) + "; keeping the model in use");
        return LV2_STATE_ERR_UNKNOWN;
    }
    plugin.log().note("separating with " + (path.empty() ? std::string("the bundle's model") : path));
    return LV2_STATE_SUCCESS;
}

const LV2_State_Interface kStateInterface = {save, restore};

}  // namespace

const LV2_State_Interface* stateInterface() {
    return &kStateInterface;
}

}  // namespace tonwerk::lv2
