#include "model_worker.h"

#include "stems_plugin.h"

#include <exception>
#include <string>

namespace tonwerk::lv2 {
namespace {

// What travels between the threads, copied by the host: plain data only.
struct Job {
    enum class Kind : std::uint32_t { build, discard };
    Kind kind;
    SlotShape shape;
    LiveSlot* slot;  // owned by the receiver; null for a build request or a failed build
};

StemsPlugin& plugin(LV2_Handle instance) {
    return *static_cast<StemsPlugin*>(instance);
}

bool readJob(std::uint32_t size, const void* data, Job& job) {
    if (size != sizeof(Job) || data == nullptr) return false;
    job = *static_cast<const Job*>(data);
    return true;
}

LV2_Worker_Status work(LV2_Handle instance, LV2_Worker_Respond_Function respond, LV2_Worker_Respond_Handle handle,
                       std::uint32_t size, const void* data) {
    Job job{};
    if (!readJob(size, data, job)) return LV2_WORKER_ERR_UNKNOWN;
    if (job.kind == Job::Kind::discard) {
        delete job.slot;
        return LV2_WORKER_SUCCESS;
    }
    try {
        job.slot = plugin(instance).buildSlot(job.shape).release();
    } catch (const std::exception& e) {
        plugin(instance).log().error(std::string(e.what()) + "; keeping the model session in use");
    }
    const LV2_Worker_Status status = respond(handle, sizeof job, &job);
    if (status != LV2_WORKER_SUCCESS) delete job.slot;  // the answer cannot arrive
    return status;
}

LV2_Worker_Status workResponse(LV2_Handle instance, std::uint32_t size, const void* data) {
    Job job{};
    if (!readJob(size, data, job)) return LV2_WORKER_ERR_UNKNOWN;
    LiveSlot* replaced = plugin(instance).finishReload(job.slot, job.shape);
    if (replaced == nullptr) return LV2_WORKER_SUCCESS;
    const LV2_Worker_Schedule* schedule = plugin(instance).host().schedule;
    const Job discard{Job::Kind::discard, {}, replaced};
    if (schedule->schedule_work(schedule->handle, sizeof discard, &discard) != LV2_WORKER_SUCCESS) {
        delete replaced;  // the host's queue is full: freed here, late, rather than lost
    }
    return LV2_WORKER_SUCCESS;
}

const LV2_Worker_Interface kWorkerInterface = {work, workResponse, nullptr};

}  // namespace

bool scheduleBuild(const LV2_Worker_Schedule& schedule, SlotShape shape) {
    const Job job{Job::Kind::build, shape, nullptr};
    return schedule.schedule_work(schedule.handle, sizeof job, &job) == LV2_WORKER_SUCCESS;
}

const LV2_Worker_Interface* workerInterface() {
    return &kWorkerInterface;
}

}  // namespace tonwerk::lv2
