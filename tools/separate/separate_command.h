// The whole tonwerk-separate run, from options to written stems and summary.
#pragma once

#include "options.h"

#include <chrono>

namespace tonwerk::tools {

// Returns the exit status; failures are thrown as ToolError (or as the
// library's exceptions) after the unfinished outputs of the input at hand
// have been removed. Inputs finished before stay written.
int runSeparateCommand(const SeparateOptions& options, std::chrono::steady_clock::time_point started);

}  // namespace tonwerk::tools
