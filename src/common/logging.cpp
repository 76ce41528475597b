#include "common/logging.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/details/os.h>
#include <spdlog/formatter.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace tonwerk::log {
namespace {

constexpr Severity kThreshold = Severity::warning;

// The severity travels in the record as spdlog's level; each of ours maps to
// exactly one of spdlog's so the formatter can print our names back.
spdlog::level::level_enum toSpdlog(Severity severity) {
    switch (severity) {
        case Severity::fatal: return spdlog::level::critical;
        case Severity::error: return spdlog::level::err;
        case Severity::warning: return spdlog::level::warn;
        case Severity::info: return spdlog::level::info;
        case Severity::debug: return spdlog::level::debug;
        case Severity::verbose: return spdlog::level::trace;
        case Severity::none: break;
    }
    return spdlog::level::off;
}

Severity fromSpdlog(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::critical: return Severity::fatal;
        case spdlog::level::err: return Severity::error;
        case spdlog::level::warn: return Severity::warning;
        case spdlog::level::info: return Severity::info;
        case spdlog::level::debug: return Severity::debug;
        case spdlog::level::trace: return Severity::verbose;
        default: return Severity::none;
    }
}

class LineFormatter final : public spdlog::formatter {
public:
    void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override {
        const auto sinceEpoch = msg.time.time_since_epoch();
        const std::time_t seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
        const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000;
        const std::tm local = spdlog::details::os::localtime(seconds);
        fmt::format_to(std::back_inserter(dest), "{}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {:<5} [{}] [{}@{}] ",
                       local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                       local.tm_sec, static_cast<int>(millis), severityName(fromSpdlog(msg.level)), msg.thread_id,
                       msg.source.funcname ? msg.source.funcname : "", msg.source.line);
        dest.append(msg.payload.begin(), msg.payload.end());
        dest.push_back('\n');
    }
    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<LineFormatter>(); }
};

// Standard output through the C library's stream on every platform. spdlog's
// Windows console sink writes to the system handle it saw when it was made and
// would miss a later redirection of the stream (by a host or a test). Records
// are already serialised by `loggerMutex`, so the sink takes no lock of its own.
class StdoutSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        spdlog::memory_buf_t line;
        formatter_->format(msg, line);
        std::fwrite(line.data(), 1, line.size(), stdout);
    }
    void flush_() override { std::fflush(stdout); }
};

// The logger lives under this lock: a record is written while holding it and
// teardown takes it, so a record that started before a LogSetup went either
// finishes first or sees no logger, and nothing is printed once the owner's
// destructor has returned. Both are trivially destructible, so records made
// while the process exits never meet a destroyed lock.
std::mutex loggerMutex;
spdlog::logger* activeLogger = nullptr;  // guarded by loggerMutex
// Read without the lock so that records below the threshold, and every record
// while no logger exists, cost one load; write() checks again under the lock.
std::atomic<bool> loggerPresent{false};

}  // namespace

const char* severityName(Severity severity) {
    switch (severity) {
        case Severity::none: return "NONE";
        case Severity::fatal: return "FATAL";
        case Severity::error: return "ERROR";
        case Severity::warning: return "WARN";
        case Severity::info: return "INFO";
        case Severity::debug: return "DEBUG";
        case Severity::verbose: return "VERB";
    }
    return "NONE";
}

bool enabled(Severity severity) {
    return severity != Severity::none && severity <= kThreshold && loggerPresent.load(std::memory_order_acquire);
}

void write(Severity severity, const char* function, int line, const std::string& message) {
    if (!enabled(severity)) return;
    const std::lock_guard<std::mutex> lock(loggerMutex);
    if (activeLogger == nullptr) return;
    activeLogger->log(spdlog::source_loc{"", line, function}, toSpdlog(severity), spdlog::string_view_t(message));
    activeLogger->flush();
}

std::unique_ptr<LogSetup> LogSetup::trySetUp() {
    const std::lock_guard<std::mutex> lock(loggerMutex);
    if (activeLogger != nullptr) return nullptr;
    auto sink = std::make_shared<StdoutSink>();
    sink->set_formatter(std::make_unique<LineFormatter>());
    auto logger = std::make_unique<spdlog::logger>("tonwerk", std::move(sink));
    logger->set_level(spdlog::level::trace);  // the threshold is applied by enabled()
    auto setup = std::unique_ptr<LogSetup>(new LogSetup());
    activeLogger = logger.release();
    loggerPresent.store(true, std::memory_order_release);
    return setup;
}

LogSetup::~LogSetup() {
    const std::lock_guard<std::mutex> lock(loggerMutex);
    loggerPresent.store(false, std::memory_order_release);
    delete activeLogger;
    activeLogger = nullptr;
}

}  // namespace tonwerk::log
