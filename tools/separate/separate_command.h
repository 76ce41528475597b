// The whole tonwerk-separate run, from options to written stems and summary.
#pragma once

#include "options.h"

#include <chrono>

namespace tonwerk::tools {

// Returns the exit status; failures are thrown as ToolError (or as the
// library's exceptions) after every unfinished output has been removed.
int runSeparateCommand(const SeparateOptions& options, std::chrono::steady_clock::time_point started);

}  // namespace tonwerk::tools
