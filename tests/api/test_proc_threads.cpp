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

// Lets every thread go on once `count` of them have arrived.
class Gate {
public:
    explicit Gate(int count) : remaining_(count) {}
    void arriveAndWait() {
        remaining_.fetch_sub(1);
        while (remaining_.load() > 0) std::this_thread::yield();
    }

private:
    std::atomic<int> remaining_;
};

TEST(ProcThreads, ContextsBuiltAndStreamedAtOnceWhileTheLoggingOwnerGoes) {
    const Stereo signal = bandLimitedSignal(kFrames);
    tonwerk::TonwerkProc alone(loadContext("band_split.onnx"), makeConfig(true));
    const StreamOutput reference = runInBlocksOf(alone, signal, kBlock);

    std::array<StreamOutput, kStreamingThreads> outputs;
    std::array<std::string, kStreamingThreads + 1> errors;
    std::size_t failedRunsReturned = 0;
    const std::string printed = tonwerk::test::stdoutOf([&] {
        // Built first, so this context owns logging; it goes while the others run.
        auto owner = loadContext("identity.onnx");
        Gate built(kStreamingThreads + 2);
        const auto guarded = [&errors](int i, auto&& work) {
            try {
                work();
            } catch (const std::exception& e) {
                errors[i] = e.what();
            }
        };
        std::vector<std::thread> threads;
        for (int i = 0; i < kStreamingThreads; ++i) {
            threads.emplace_back([&, i] {
                guarded(i, [&] {
                    auto context = loadContext("band_split.onnx");
                    built.arriveAndWait();
                    tonwerk::TonwerkProc proc(context, makeConfig(i != 1));
                    outputs[i] = runInBlocksOf(proc, signal, kBlock, i != 1);
                });
            });
        }
        threads.emplace_back([&] {
            guarded(kStreamingThreads, [&] {
                tonwerk::TonwerkProc proc(loadContext("broken_runtime_error.onnx"), makeConfig(true));
                built.arriveAndWait();
                for (int run = 0; run < 4; ++run) {
                    failedRunsReturned += proc.process(block(signal, 0, 257024, true), false).empty() ? 0 : 1;
                }
            });
        });
        built.arriveAndWait();
        owner.reset();
        for (auto& thread : threads) thread.join();
    });

    for (int i = 0; i <= kStreamingThreads; ++i) EXPECT_EQ(errors[i], "") << "thread " << i;
    for (const auto& output : outputs) expectSameOutput(output, reference);
    EXPECT_EQ(failedRunsReturned, 4u) << "a failed model run still returns its (silent) stretch";
    std::istringstream lines(printed);
    const std::regex record(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (ERROR|WARN ) \[\d+\] \[[^@\]]+@\d+\] .*)");
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {
            EXPECT_TRUE(std::regex_match(line, record)) << line;
        }
    }
}

}  // namespace
}  // namespace tonwerk_test
