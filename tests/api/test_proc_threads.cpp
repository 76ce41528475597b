// Hosts on several threads: contexts built at the same moment, each streamed
// on its own thread, while the context that set up logging goes away and the
// others keep logging (provider fallbacks when they load, a model whose every
// run fails). Built with ThreadSanitizer this is the race check of the
// library's shared state; in every build it checks that no stream is disturbed
// and that every printed record is whole.
#include "proc_stream_support.h"

#include <atomic>
#include <regex>
#include <sstream>
#include <thread>

namespace tonwerk_test {
namespace {

constexpr std::size_t kFrames = 300000;  // two model runs
constexpr std::size_t kBlock = 65536;
constexpr int kStreamingThreads = 3;

TEST(ProcThreads, ContextsBuiltAndStreamedAtOnceWhileTheLoggingOwnerGoes) {
    const Stereo signal = bandLimitedSignal(kFrames);
    tonwerk::TonwerkProc alone(loadContext("band_split.onnx"), makeConfig(true));
    const StreamOutput reference = runInBlocksOf(alone, signal, kBlock);

    std::array<StreamOutput, kStreamingThreads> outputs;
    std::array<std::string, kStreamingThreads + 1> errors;
    std::size_t failedRunsReturned = 0;
    const std::string printed = tonwerk::test::stdoutOf([&] {
        auto owner = loadContext("identity.onnx");  // built first, so it owns logging
        std::atomic<int> notBuilt{kStreamingThreads + 2};
        const auto builtAndWait = [&notBuilt] {
            notBuilt.fetch_sub(1);
            while (notBuilt.load() > 0) std::this_thread::yield();
        };
        const auto guarded = [&](int i, const std::function<void()>& work) {
            return std::thread([&errors, i, work] {
                try {
                    work();
                } catch (const std::exception& e) {
                    errors[i] = e.what();
                }
            });
        };
        std::vector<std::thread> threads;
        for (int i = 0; i < kStreamingThreads; ++i) {
            threads.push_back(guarded(i, [&, i] {
                auto context = loadContext("band_split.onnx");
                builtAndWait();
                tonwerk::TonwerkProc proc(context, makeConfig(i != 1));
                outputs[i] = runInBlocksOf(proc, signal, kBlock, i != 1);
            }));
        }
        threads.push_back(guarded(kStreamingThreads, [&] {
            tonwerk::TonwerkProc proc(loadContext("broken_runtime_error.onnx"), makeConfig(true));
            builtAndWait();
            for (int run = 0; run < 4; ++run) {
                failedRunsReturned += proc.process(block(signal, 0, 257024, true), false).empty() ? 0 : 1;
            }
        }));
        builtAndWait();
        owner.reset();
        for (auto& thread : threads) thread.join();
    });

    for (const auto& error : errors) EXPECT_EQ(error, "");
    for (const auto& output : outputs) expectSameOutput(output, reference);
    EXPECT_EQ(failedRunsReturned, 4u) << "a failed model run still returns its (silent) stretch";
    const std::regex record(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (ERROR|WARN ) \[\d+\] \[[^@\]]+@\d+\] .*)");
    for (const auto& line : tonwerk::test::linesWith(printed, "")) {
        EXPECT_TRUE(line.empty() || std::regex_match(line, record)) << line;
    }
}

}  // namespace
}  // namespace tonwerk_test
