#include "host_features.h"

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/options/options.h>

#include <algorithm>

namespace tonwerk::lv2 {
namespace {

// A block length from the options (`key`, a bufsz URI), 0 if absent or
// unusable. Option keys and types are URIDs, so without a map nothing can
// be read.
std::uint32_t blockOption(const LV2_Options_Option* options, LV2_URID_Map* map, const char* uri) {
    if (options == nullptr || map == nullptr) return 0;
    const LV2_URID key = map->map(map->handle, uri);
    const LV2_URID atomInt = map->map(map->handle, LV2_ATOM__Int);
    const LV2_URID atomLong = map->map(map->handle, LV2_ATOM__Long);
    for (const LV2_Options_Option* o = options; o->key != 0 || o->value != nullptr; ++o) {
        if (o->key != key || o->value == nullptr) continue;
        std::int64_t frames = 0;
        if (o->type == atomInt && o->size == sizeof(std::int32_t)) {
            frames = *static_cast<const std::int32_t*>(o->value);
        } else if (o->type == atomLong && o->size == sizeof(std::int64_t)) {
            frames = *static_cast<const std::int64_t*>(o->value);
        }
        return frames > 0 ? static_cast<std::uint32_t>(std::min<std::int64_t>(frames, kLargestMaxBlock)) : 0;
    }
    return 0;
}

}  // namespace

HostFeatures readHostFeatures(const LV2_Feature* const* features) {
    HostFeatures host;
    host.map = feature<LV2_URID_Map>(features, LV2_URID__map);
    host.log = feature<LV2_Log_Log>(features, LV2_LOG__log);
    host.mapPath = feature<LV2_State_Map_Path>(features, LV2_STATE__mapPath);
    host.freePath = feature<LV2_State_Free_Path>(features, LV2_STATE__freePath);
    host.schedule = feature<LV2_Worker_Schedule>(features, LV2_WORKER__schedule);
    // The usual period sets the latency; a longer block now and then (a
    // host's maximum is often far above its period) is cut up, and a
    // longer period in real time gets a slot of its own (see run()).
    const auto* options = feature<const LV2_Options_Option>(features, LV2_OPTIONS__options);
    const std::uint32_t nominal = blockOption(options, host.map, LV2_BUF_SIZE__nominalBlockLength);
    const std::uint32_t maximum = blockOption(options, host.map, LV2_BUF_SIZE__maxBlockLength);
    if (nominal > 0 || maximum > 0) host.maxBlock = nominal > 0 ? nominal : maximum;
    return host;
}

}  // namespace tonwerk::lv2
