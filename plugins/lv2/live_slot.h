// What run() works with: a live adapter and the buffers it needs at its
// block limit. Built off the audio thread (a model load takes far too long
// for it) and swapped in whole between two runs.
#pragma once

#include "tonwerk/tonwerk_live.hpp"

#include <array>
#include <cstdint>
#include <vector>

namespace tonwerk::lv2 {

// The settings a slot is built for; changing either takes a new slot.
struct SlotShape {
    std::uint32_t threads = 1;  // threads per model run
    std::uint32_t maxBlock = 512;  // most frames per adapter call
    bool operator==(const SlotShape& other) const {
        return threads == other.threads && maxBlock == other.maxBlock;
    }
    bool operator!=(const SlotShape& other) const { return !(*this == other); }
};

struct LiveSlot {
    // At the host's `rate`; throws (live::Error) when the model does not
    // load or the rate is out of range.
    LiveSlot(const std::vector<unsigned char>& model, SlotShape shape, std::uint32_t rate, bool offline);

    SlotShape shape;
    live::Adapter adapter;
    std::vector<float> input;  // one call's interleaved input
    std::array<std::vector<float>, TW_OUTPUT_COUNT> outputs;
    std::array<float*, TW_OUTPUT_COUNT> pointers{};
};

}  // namespace tonwerk::lv2
