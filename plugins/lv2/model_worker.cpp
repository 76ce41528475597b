#include "model_worker.h"

#include "stems_plugin.h"

#include <cstring>
#include <exception>
#include <string>

namespace tonwerk::lv2 {
namespace {

// What travels between the threads, copied by the host: plain data, the
// header and then, for a model of the host's choosing, its path.
struct Job {
    enum class Kind : std::uint32_t { build, discard };
    Kind kind;
    SlotShape shape;
    LiveSlot* slot;  // owned by the receiver; null for a build request or a failed build
    std::uint64_t epoch;
    std::uint32_t pathLength;
};

struct JobWithPath {
    Job job;
    char path[kMaxPath];
};

StemsPlugin& plugin(LV2_Handle instance) {
    return *static_cast<StemsPlugin*>(instance);
}

// The job in `data`, its path (empty for the chosen model) into `path`.
bool readJob(std::uint32_t size, const void* data, Job& job, std::string_view& path) {
    if (size < sizeof(Job) || data == nullptr) return false;
    std::memcpy(&job, data, sizeof(Job));
    if (job.pathLength >= kMaxPath || size != sizeof(Job) + job.pathLength) return false;
    path = std::string_view(static_cast<const char*>(data) + sizeof(Job), job.pathLength);
    return true;
}

std::uint32_t sizeOf(const Job& job) {
    return static_cast<std::uint32_t>(sizeof(Job) + job.pathLength);
}

JobWithPath jobFor(Job job, std::string_view path) {
    JobWithPath message{job, {}};
    message.job.pathLength = static_cast<std::uint32_t>(path.size());
    std::memcpy(message.path, path.data(), path.size());
    return message;
}

LV2_Worker_Status work(LV2_Handle instance, LV2_Worker_Respond_Function respond, LV2_Worker_Respond_Handle handle,
                       std::uint32_t size, const void* data) {
    Job job{};
    std::string_view path;
    if (!readJob(size, data, job, path)) return LV2_WORKER_ERR_UNKNOWN;
    if (job.kind == Job::Kind::discard) {
        delete job.slot;
        return LV2_WORKER_SUCCESS;
    }
    try {
        job.slot = plugin(instance).buildSlot(job.shape, std::string(path), job.epoch).release();
    } catch (const std::exception& e) {
        plugin(instance).log().error(std::string(e.what()) + "; keeping the model session in use");
    }
    const JobWithPath answer = jobFor(job, path);
    const LV2_Worker_Status status = respond(handle, sizeOf(answer.job), &answer);
    if (status != LV2_WORKER_SUCCESS) delete job.slot;  // the answer cannot arrive
    return status;
}

LV2_Worker_Status workResponse(LV2_Handle instance, std::uint32_t size, const void* data) {
    Job job{};
    std::string_view path;
    if (!readJob(size, data, job, path)) return LV2_WORKER_ERR_UNKNOWN;
    plugin(instance).freeLater(plugin(instance).finishReload(job.slot, job.shape, job.epoch, path));
    return LV2_WORKER_SUCCESS;
}

const LV2_Worker_Interface kWorkerInterface = {work, workResponse, nullptr};

}  // namespace

bool scheduleBuild(const LV2_Worker_Schedule& schedule, SlotShape shape, std::string_view path,
                   std::uint64_t epoch) {
    const JobWithPath message = jobFor(Job{Job::Kind::build, shape, nullptr, epoch, 0}, path);
    return schedule.schedule_work(schedule.handle, sizeOf(message.job), &message) == LV2_WORKER_SUCCESS;
}

bool scheduleDiscard(const LV2_Worker_Schedule& schedule, LiveSlot* slot) {
    const Job discard{Job::Kind::discard, {}, slot, 0, 0};
    return schedule.schedule_work(schedule.handle, sizeof discard, &discard) == LV2_WORKER_SUCCESS;
}

const LV2_Worker_Interface* workerInterface() {
    return &kWorkerInterface;
}

}  // namespace tonwerk::lv2
