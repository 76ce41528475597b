// Ctrl-C and termination requests, honoured between blocks so that the run
// can remove its unfinished files before it exits.
#pragma once

namespace tonwerk::tools {

void installInterruptHandlers();

// A server whose parent process dies (killed, say) has nobody left to
// answer: from then on it counts as terminated, so the input at hand is
// abandoned and its unfinished files removed rather than finished unasked.
void interruptWhenOrphaned();

// Throws ToolError(exitInterrupted) once SIGINT or SIGTERM has arrived.
void throwIfInterrupted();

}  // namespace tonwerk::tools
