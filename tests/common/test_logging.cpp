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

// Local date and time to the second, as records print it.
std::string localSecond(std::time_t t) {
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &t);
#else
    localtime_r(&t, &local);
#endif
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
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
    const std::time_t after = std::time(nullptr);
    EXPECT_EQ(evaluated, 0);
    const std::regex record(R"((.{19})\.\d{3} (.{5}) \[(\d+)\] \[([^@\]]+@\d+)\] (.*))");
    std::vector<std::string> lines;
    for (const std::string& text : test::linesWith(out, "")) {
        std::smatch m;
        if (text.empty() || !std::regex_match(text, m, record)) {
            lines.push_back(text);
            continue;
        }
        // Made while the records were written (the fixed-width format sorts as text).
        EXPECT_TRUE(m[1] >= localSecond(before) && m[1] <= localSecond(after)) << text;
        EXPECT_EQ(std::stoul(m[3].str()), systemThreadId());
        lines.push_back(m[2].str() + " " + m[4].str() + " " + m[5].str());
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "WARN  BufferAggregator::get@" + std::to_string(line) +
                             " cannot return requested size: 12, eof=1",
                         "FATAL f@" + std::to_string(line + 1) + " a",
                         "ERROR PreProcessor::process@" + std::to_string(line + 2) + " Inference failed", ""}));
}

// A logger torn down and set up again while other threads are writing
// records: every record is printed whole or not at all, none appears before
// the first set-up or between the owner's destruction and the next set-up,
// and only the first set-up owns the logger. Each logger lives
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
            ASSERT_EQ(LogSetup::trySetUp(), nullptr);  // a second one does not take over
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
    const std::regex record(R"(.*\] \[t@\d+\] record [0-2] \d+)");
    for (const std::string& line : test::linesWith(out, "")) {
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
