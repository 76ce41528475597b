// Model loads off the audio thread through the host's worker: run() asks
// for a slot of another shape (thread count, block limit), the worker
// builds it, and the answer swaps it in between runs; the replaced slot
// goes back to the worker to be freed, since freeing stops a thread.
#pragma once

#include "live_slot.h"

#include <lv2/worker/worker.h>

#include <string_view>

namespace tonwerk::lv2 {

// On the audio thread: asks for a slot of `shape` on the chosen model, or
// on the model at `path` (shorter than kMaxPath), which becomes the chosen
// one. `epoch` is the plugin's model epoch: a restore in between makes the
// answer stale. False when the host refused the job.
bool scheduleBuild(const LV2_Worker_Schedule& schedule, SlotShape shape, std::string_view path,
                   std::uint64_t epoch);
// On the audio thread: hands `slot` to the worker to be freed. False when
// the host refused the job.
bool scheduleDiscard(const LV2_Worker_Schedule& schedule, LiveSlot* slot);

const LV2_Worker_Interface* workerInterface();

}  // namespace tonwerk::lv2
