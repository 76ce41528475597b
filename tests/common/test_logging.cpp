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

std::tm localTime(std::time_t time) {
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &time);
#else
    localtime_r(&time, &local);
#endif
    return local;
}

const std::regex kLine(R"((\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) (.{5}) \[(\d+)\] \[([^@\]]+)@(\d+)\] (.*)\n)");

TEST(Logging, LineLayoutMatchesTheTextFormat) {
    auto setup = LogSetup::trySetUp();
    ASSERT_NE(setup, nullptr);
    const std::time_t before = std::time(nullptr);
    int line = 0;
    const std::string out = stdoutOf([&] {
        line = __LINE__ + 1;
        TW_LOG(warning, "BufferAggregator::get") << "cannot return requested size: " << 12 << ", eof=" << true;
    });
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, kLine)) << out;
    EXPECT_EQ(m[8].str(), "WARN ");
    EXPECT_EQ(std::stoul(m[9].str()), systemThreadId());
    EXPECT_EQ(m[10].str(), "BufferAggregator::get");
    EXPECT_EQ(std::stoi(m[11].str()), line);
    EXPECT_EQ(m[12].str(), "cannot return requested size: 12, eof=1");

    // Local wall-clock time, to the second the record was made in (or the next).
    const std::tm local = localTime(before);
    EXPECT_EQ(std::stoi(m[1].str()), local.tm_year + 1900);
    EXPECT_EQ(std::stoi(m[2].str()), local.tm_mon + 1);
    EXPECT_EQ(std::stoi(m[3].str()), local.tm_mday);
    const int secondOfDay = std::stoi(m[4].str()) * 3600 + std::stoi(m[5].str()) * 60 + std::stoi(m[6].str());
    const int expected = local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
    EXPECT_LE(secondOfDay - expected, 1);
    EXPECT_GE(secondOfDay - expected, 0);
}

TEST(Logging, SeverityNamesArePaddedToFiveColumnsAndThresholdIsWarning) {
    auto setup = LogSetup::trySetUp();
    ASSERT_NE(setup, nullptr);
    const std::string out = stdoutOf([] {
        TW_LOG(fatal, "f") << "a";
        TW_LOG(error, "f") << "b";
        TW_LOG(warning, "f") << "c";
        TW_LOG(info, "f") << "hidden";
        TW_LOG(debug, "f") << "hidden";
        TW_LOG(verbose, "f") << "hidden";
    });
    std::string names;
    const std::regex severity(R"(\.\d{3} (.{5}) \[)");
    for (std::sregex_iterator it(out.begin(), out.end(), severity), end; it != end; ++it) {
        names += (*it)[1].str() + "|";
    }
    EXPECT_EQ(names, "FATAL|ERROR|WARN |");
    EXPECT_EQ(out.find("hidden"), std::string::npos);
    EXPECT_STREQ(severityName(Severity::none), "NONE");
    EXPECT_STREQ(severityName(Severity::info), "INFO");
    EXPECT_STREQ(severityName(Severity::debug), "DEBUG");
    EXPECT_STREQ(severityName(Severity::verbose), "VERB");

    // Below the threshold the message is not even formatted.
    int evaluated = 0;
    stdoutOf([&] { TW_LOG(debug, "f") << ++evaluated; });
    EXPECT_EQ(evaluated, 0);
    stdoutOf([&] { TW_LOG(error, "f") << ++evaluated; });
    EXPECT_EQ(evaluated, 1);
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

TEST(Logging, MessagesKeepTheirOwnLineEndsAndRecordsFromThreadsStayWhole) {
    auto setup = LogSetup::trySetUp();
    const std::string out = stdoutOf([] {
        TW_LOG(error, "PreProcessor::process") << "Inference failed" << '\n';
        std::thread a([] { for (int i = 0; i < 50; ++i) TW_LOG(warning, "t") << "from a " << i; });
        std::thread b([] { for (int i = 0; i < 50; ++i) TW_LOG(warning, "t") << "from b " << i; });
        a.join();
        b.join();
    });
    EXPECT_NE(out.find("[PreProcessor::process@"), std::string::npos);
    EXPECT_NE(out.find("] Inference failed\n\n"), std::string::npos);
    std::size_t lines = 0;
    const std::regex whole(R"(\] from [ab] \d+\n)");
    for (std::sregex_iterator it(out.begin(), out.end(), whole), end; it != end; ++it) {
        ++lines;
    }
    EXPECT_EQ(lines, 100u);
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
