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
    std::uint32_t threads;
    live::Adapter* adapter;  // owned by the receiver; null for a build request or a failed build
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
        delete job.adapter;
        return LV2_WORKER_SUCCESS;
    }
    try {
        job.adapter = plugin(instance).buildAdapter(job.threads).release();
    } catch (const std::exception& e) {
        plugin(instance).log().error(std::string(e.what()) + "; keeping the threads in use");
    }
    const LV2_Worker_Status status = respond(handle, sizeof job, &job);
    if (status != LV2_WORKER_SUCCESS) delete job.adapter;  // the answer cannot arrive
    return status;
}

LV2_Worker_Status workResponse(LV2_Handle instance, std::uint32_t size, const void* data) {
    Job job{};
    if (!readJob(size, data, job)) return LV2_WORKER_ERR_UNKNOWN;
    plugin(instance).finishReload(job.adapter, job.threads);
    if (job.adapter == nullptr) return LV2_WORKER_SUCCESS;
    // job.adapter now holds the adapter that was replaced.
    const LV2_Worker_Schedule* schedule = plugin(instance).host().schedule;
    const Job discard{Job::Kind::discard, 0, job.adapter};
    if (schedule->schedule_work(schedule->handle, sizeof discard, &discard) != LV2_WORKER_SUCCESS) {
        delete job.adapter;  // the host's queue is full: late, but not lost
    }
    return LV2_WORKER_SUCCESS;
}

const LV2_Worker_Interface kWorkerInterface = {work, workResponse, nullptr};

}  // namespace

bool scheduleBuild(const LV2_Worker_Schedule& schedule, std::uint32_t threads) {
    const Job job{Job::Kind::build, threads, nullptr};
    return schedule.schedule_work(schedule.handle, sizeof job, &job) == LV2_WORKER_SUCCESS;
}

const LV2_Worker_Interface* workerInterface() {
    return &kWorkerInterface;
}

}  // namespace tonwerk::lv2
