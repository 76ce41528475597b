#include "interrupt.h"

#include "tool_error.h"

#include <csignal>

namespace tonwerk::tools {

namespace {

volatile std::sig_atomic_t interruptSignal = 0;

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

void throwIfInterrupted() {
    if (interruptSignal != 0) {
        throw ToolError(exitInterrupted, interruptSignal == SIGINT ? "interrupted" : "terminated");
    }
}

}  // namespace tonwerk::tools
