// Process-wide log output: one text line per record on standard output, in the
// layout "YYYY-MM-DD HH:MM:SS.mmm SEVER [tid] [function@line] message".
//
// Nothing is printed until a LogSetup exists; the first InferenceContext
// built while none exists owns one. Function names are passed explicitly so
// that records name the code as its authors qualify it, never as the
// compiler decorates it.
#pragma once

#include <memory>
#include <sstream>

namespace tonwerk::log {

enum class Severity { none = 0, fatal = 1, error = 2, warning = 3, info = 4, debug = 5, verbose = 6 };

// Text printed for a severity, e.g. "WARN" for Severity::warning.
const char* severityName(Severity severity);

// True when a logger is set up and its threshold lets `severity` through.
bool enabled(Severity severity);

// Writes one finished record. Does nothing when `enabled(severity)` is false.
void write(Severity severity, const char* function, int line, const std::string& message);

// Owns the process-wide logger while it lives. Only one may be active at a
// time: `trySetUp` returns null when a logger already exists. Set-up, teardown
// and records may come from any threads at once: the destructor waits for a
// record being printed and nothing is printed after it returns.
class LogSetup {
public:
    static std::unique_ptr<LogSetup> trySetUp();
    ~LogSetup();
    LogSetup(const LogSetup&) = delete;
    LogSetup& operator=(const LogSetup&) = delete;

private:
    LogSetup() = default;
};

// Collects one record's message and writes it when destroyed.
class Record {
public:
    Record(Severity severity, const char* function, int line)
        : severity_(severity), function_(function), line_(line) {}
    ~Record() { write(severity_, function_, line_, stream_.str()); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    std::ostringstream& stream() { return stream_; }

private:
    Severity severity_;
    const char* function_;
    int line_;
    std::ostringstream stream_;
};

}  // namespace tonwerk::log

// TW_LOG(warning, "BufferAggregator::get") << "text " << value;
// The message is only formatted when the record would be printed.
#define TW_LOG(severity, function)                                                      \
    if (!::tonwerk::log::enabled(::tonwerk::log::Severity::severity)) {                 \
    } else                                                                              \
        ::tonwerk::log::Record(::tonwerk::log::Severity::severity, function, __LINE__).stream()
