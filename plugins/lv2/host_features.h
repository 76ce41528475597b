// What the host offers at instantiation. Every feature is optional: a host
// that offers none (lv2apply) gets the defaults.
#pragma once

#include <lv2/core/lv2.h>
#include <lv2/core/lv2_util.h>
#include <lv2/log/log.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <cstdint>

namespace tonwerk::lv2 {

// The block limit when the host does not state one.
constexpr std::uint32_t kDefaultMaxBlock = 512;
// The adapter's latency grows with its block limit, so longer host blocks
// (some hosts bounce in such) are cut to this.
constexpr std::uint32_t kLargestMaxBlock = 8192;

struct HostFeatures {
    LV2_URID_Map* map = nullptr;
    LV2_Log_Log* log = nullptr;
    LV2_State_Map_Path* mapPath = nullptr;
    LV2_State_Free_Path* freePath = nullptr;
    LV2_Worker_Schedule* schedule = nullptr;
    // The most frames the adapter takes per call at first: the host's
    // bufsz:nominalBlockLength, else its bufsz:maxBlockLength.
    std::uint32_t maxBlock = kDefaultMaxBlock;
};

// The data of the feature `uri` in a host's list, null when absent.
template <typename T>
T* feature(const LV2_Feature* const* features, const char* uri) {
    return static_cast<T*>(lv2_features_data(features, uri));
}

HostFeatures readHostFeatures(const LV2_Feature* const* features);

}  // namespace tonwerk::lv2
