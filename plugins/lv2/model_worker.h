// Model loads off the audio thread through the host's worker: run() asks
// for an adapter with another thread count, the worker builds it, and the
// answer swaps it in between runs; the replaced adapter goes back to the
// worker to be freed, since freeing stops a thread.
#pragma once

#include <lv2/worker/worker.h>

#include <cstdint>

namespace tonwerk::lv2 {

// On the audio thread: asks for an adapter with `threads` threads. False
// when the host refused the job.
bool scheduleBuild(const LV2_Worker_Schedule& schedule, std::uint32_t threads);

const LV2_Worker_Interface* workerInterface();

}  // namespace tonwerk::lv2
