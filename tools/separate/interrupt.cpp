#include "interrupt.h"

#include "tool_error.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace tonwerk::tools {

namespace {

// Set by the signal handler and by the orphan watch: a lock-free atomic is
// safe in both.
std::atomic<int> interruptSignal{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onInterrupt(int signal) { interruptSignal = signal; }

}  // namespace

void installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A reader that went away (| head) makes the write fail instead of
    // killing the run mid-file, so the unfinished files are removed.
    std::signal(SIGPIPE, SIG_IGN);
}

void interruptWhenOrphaned() {
    const pid_t parent = ::getppid();
    // The watch thread inherits a mask without SIGINT and SIGTERM, so they
    // reach the main thread and break off a read it waits in.
    sigset_t stops, before;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, &before);
    std::thread([parent] {
        while (::getppid() == parent) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        interruptSignal = SIGTERM;
    }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void throwIfInterrupted() {
    const int signal = interruptSignal;
    if (signal != 0) throw ToolError(exitInterrupted, signal == SIGINT ? "interrupted" : "terminated");
}

}  // namespace tonwerk::tools
