// The whole tonwerk-separate run, from options to written stems and summary.
#pragma once

#include "options.h"

#include <chrono>

namespace tonwerk::tools {

// Returns the exit status; failures are thrown as ToolError (or as the
// library's exceptions) after the unfinished outputs of the input at hand
// have been removed. Inputs finished before stay written.
int runSeparateCommand(const SeparateOptions& options, std::chrono::steady_clock::time_point started);

// --serve: separates the inputs named on standard input, one per line, and
// answers each with one line of JSON on standard output (flushed), the
// model loaded on the first input that needs it and kept. Returns at the
// end of standard input; throws ToolError(exitInterrupted) when interrupted
// or orphaned, after removing the unfinished outputs of the input at hand.
int runServeCommand(const SeparateOptions& options);

}  // namespace tonwerk::tools
