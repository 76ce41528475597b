// Hosts on several threads: contexts built at the same moment, each streamed
// on its own thread, while the context that set up logging goes away and the
// others keep logging (provider fallbacks when they load, a model whose every
// run fails). Built with ThreadSanitizer this is the race check of the
// library's shared state; in every build it checks that no stream is
// disturbed. (That records stay whole while loggers come and go is
// tests/common/test_logging's teardown test.)
#include "identity_stream_check.h"
#include "test_support.h"

#include <array>
#include <atomic>
#include <functional>
#include <thread>

namespace tonwerk::test {
namespace {

constexpr std::size_t kFrames = 300000;  // two model runs
constexpr std::size_t kBlock = 65536;
constexpr int kStreamingThreads = 3;

// Each streaming thread drives two streams call by call, every returned
// frame checked: one on the context it built, one on a context all of them
// share, which the host lets go of once the threads hold it.
TEST(ProcThreads, ContextsBuiltAndStreamedAtOnceWhileTheLoggingOwnerGoes) {
    std::array<std::string, kStreamingThreads + 1> errors;
    std::size_t failedRunsReturned = 0;
    stdoutOf([&] {  // the provider fallbacks and failed runs log
        auto owner = loadContext("identity.onnx");  // built first, so it owns logging
        auto shared = loadContext("identity.onnx");
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
            threads.push_back(guarded(i, [&builtAndWait, mine = shared] {
                IdentityStreamCheck own(loadContext("identity.onnx"), kAllStems, true), onShared(mine, kAllStems, true);
                builtAndWait();
                for (std::size_t at = 0; at < kFrames; at += kBlock) {
                    const std::size_t n = std::min(kBlock, kFrames - at);
                    own.send(n, at + n == kFrames);
                    onShared.send(n, at + n == kFrames);
                }
            }));
        }
        threads.push_back(guarded(kStreamingThreads, [&] {
            TonwerkProc proc(loadContext("broken_runtime_error.onnx"), interleavedStereo());
            builtAndWait();
            for (int run = 0; run < 4; ++run) {
                failedRunsReturned += proc.process(toneBlock(0, 257024), false).empty() ? 0 : 1;
            }
        }));
        shared.reset();
        builtAndWait();
        owner.reset();
        for (auto& thread : threads) thread.join();
    });

    for (const auto& error : errors) EXPECT_EQ(error, "");
    EXPECT_EQ(failedRunsReturned, 4u) << "a failed model run still returns its (silent) stretch";
}

}  // namespace
}  // namespace tonwerk::test
