// Ctrl-C and termination requests, honoured between blocks so that the run
// can remove its unfinished files before it exits.
#pragma once

namespace tonwerk::tools {

void installInterruptHandlers();

// Throws ToolError(exitInterrupted) once SIGINT or SIGTERM has arrived.
void throwIfInterrupted();

}  // namespace tonwerk::tools
