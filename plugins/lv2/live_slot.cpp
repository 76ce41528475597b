#include "live_slot.h"

namespace tonwerk::lv2 {
namespace {

tw_live_settings settingsFor(SlotShape shape, std::uint32_t rate, bool offline) {
    tw_live_settings settings = live::defaultSettings();
    settings.sample_rate = rate;
    settings.max_block = shape.maxBlock;
    settings.threads = shape.threads;
    settings.offline = offline ? 1 : 0;
    return settings;
}

}  // namespace

LiveSlot::LiveSlot(const std::vector<unsigned char>& model, SlotShape shape, std::uint32_t rate, bool offline)
    : shape(shape), adapter(model, settingsFor(shape, rate, offline)), input(2 * std::size_t{shape.maxBlock}, 0.0F) {
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
        outputs[s].assign(2 * std::size_t{shape.maxBlock}, 0.0F);
        pointers[s] = outputs[s].data();
    }
}

}  // namespace tonwerk::lv2
