#include "common/logging.h"
#include "test_support.h"

#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <atomic>
#include <cstdio>
#include <ctime>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tonwerk::log {
namespace {

using test::stdoutOf;

// The system's id of the calling thread, as the console shows it.
unsigned long systemThreadId() {
#if defined(_WIN32)
    return GetCurrentThreadId();
#else
    return static_cast<unsigned long>(::syscall(SYS_gettid));
#endif
}

// One record per line: local date and time to the millisecond, the severity
// in five columns, the thread, the function and line, the message as written
// (its own line ends kept); the threshold is warning, and below it the
// message is not even formatted.
TEST(Logging, RecordsFollowTheTextFormatFromWarningUp) {
    auto setup = LogSetup::trySetUp();
    ASSERT_NE(setup, nullptr);
    const std::time_t before = std::time(nullptr);
    int line = 0, evaluated = 0;
    const std::string out = stdoutOf([&] {
        line = __LINE__ + 1;
        TW_LOG(warning, "BufferAggregator::get") << "cannot return requested size: " << 12 << ", eof=" << true;
        TW_LOG(fatal, "f") << "a";
        TW_LOG(error, "PreProcessor::process") << "Inference failed" << '\n';
        for (int shown = 0; shown < 2; ++shown) {
            TW_LOG(info, "f") << ++evaluated;
            TW_LOG(debug, "f") << ++evaluated;
            TW_LOG(verbose, "f") << ++evaluated;
        }
    });
    EXPECT_EQ(evaluated, 0);
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &before);
#else
    localtime_r(&before, &local);
#endif
    const int expected[] = {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
    const std::regex record(R"((\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.\d{3} )"
                            R"((.{5}) \[(\d+)\] \[([^@\]]+@\d+)\] (.*))");
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string text; std::getline(in, text);) {
        std::smatch m;
        if (text.empty() || !std::regex_match(text, m, record)) {
            lines.push_back(text);
            continue;
        }
        for (int i = 0; i < 3; ++i) EXPECT_EQ(std::stoi(m[i + 1].str()), expected[i]) << text;
        // Local wall-clock time, to the second the record was made in (or the next).
        const int second = std::stoi(m[4].str()) * 3600 + std::stoi(m[5].str()) * 60 + std::stoi(m[6].str());
        EXPECT_LE(second - (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec), 1);
        EXPECT_GE(second - (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec), 0);
        EXPECT_EQ(std::stoul(m[8].str()), systemThreadId());
        lines.push_back(m[7].str() + " " + m[9].str() + " " + m[10].str());
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "WARN  BufferAggregator::get@" + std::to_string(line) +
                             " cannot return requested size: 12, eof=1",
                         "FATAL f@" + std::to_string(line + 1) + " a",
                         "ERROR PreProcessor::process@" + std::to_string(line + 2) + " Inference failed", ""}));
    EXPECT_STREQ(severityName(Severity::none), "NONE");
    EXPECT_STREQ(severityName(Severity::info), "INFO");
    EXPECT_STREQ(severityName(Severity::debug), "DEBUG");
    EXPECT_STREQ(severityName(Severity::verbose), "VERB");
}

TEST(Logging, FirstSetUpOwnsTheLoggerUntilItIsGone) {
    EXPECT_EQ(stdoutOf([] { TW_LOG(error, "f") << "before any setup"; }), "");
    auto owner = LogSetup::trySetUp();
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(LogSetup::trySetUp(), nullptr);  // a second one does not take over
    EXPECT_NE(stdoutOf([] { TW_LOG(error, "f") << "x"; }), "");
    owner.reset();
    EXPECT_EQ(stdoutOf([] { TW_LOG(error, "f") << "after teardown"; }), "");
    auto next = LogSetup::trySetUp();
    ASSERT_NE(next, nullptr);
    EXPECT_NE(stdoutOf([] { TW_LOG(error, "f") << "again"; }), "");
}

// A logger torn down and set up again while other threads are writing
// records: every record is printed whole or not at all, and none appears
// between the owner's destruction and the next set-up. Each logger lives
// until the writers have finished six records since it was set up: at most
// one per writer began before, so at least three are printed per round,
// however slowly threads get going (Wine).
TEST(Logging, TeardownWaitsForRecordsBeingWrittenAndEndsPrinting) {
    constexpr int kRounds = 200;
    constexpr std::size_t kWriters = 3;
    std::atomic<bool> stop{false};
    std::atomic<std::size_t> written{0};
    const std::string out = stdoutOf([&] {
        std::vector<std::thread> writers;
        for (std::size_t t = 0; t < kWriters; ++t) {
            writers.emplace_back([&stop, &written, t] {
                for (int i = 0; !stop.load(); ++i) {
                    TW_LOG(error, "t") << "record " << t << " " << i;
                    written.fetch_add(1);
                }
            });
        }
        for (int round = 0; round < kRounds; ++round) {
            std::fputs("setting up\n", stdout);
            auto owner = LogSetup::trySetUp();
            ASSERT_NE(owner, nullptr);
            const std::size_t before = written.load();
            while (written.load() < before + 2 * kWriters) std::this_thread::yield();
            owner.reset();
            std::fputs("torn down\n", stdout);
            std::this_thread::yield();
        }
        stop = true;
        for (auto& writer : writers) writer.join();
    });
    int teardowns = 0;
    std::size_t records = 0;
    bool loggerMayExist = false;
    std::istringstream lines(out);
    const std::regex record(R"(.*\] \[t@\d+\] record [0-2] \d+)");
    for (std::string line; std::getline(lines, line);) {
        if (line == "setting up" || line == "torn down") {
            loggerMayExist = line == "setting up";
            teardowns += loggerMayExist ? 0 : 1;
            continue;
        }
        ASSERT_TRUE(std::regex_match(line, record)) << line;
        ASSERT_TRUE(loggerMayExist) << "printed while no logger existed: " << line;
        ++records;
    }
    EXPECT_EQ(teardowns, kRounds);
    EXPECT_GE(records, kWriters * kRounds);
}

}  // namespace
}  // namespace tonwerk::log
