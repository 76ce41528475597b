// Errors of the command-line tools, each carrying the exit status it ends
// the program with, so that main() has a single place that prints and exits.
#pragma once

#include <stdexcept>
#include <string>

namespace tonwerk::tools {

// Exit statuses shared by the tools.
enum ExitStatus : int {
    exitOk = 0,
    exitViolations = 1,  // tonwerk-model check: the model breaks the contract
    exitUsage = 2,
    exitInput = 3,  // unreadable input, model or output location
    exitInterrupted = 130,
};

class ToolError : public std::runtime_error {
public:
    ToolError(int exitStatus, const std::string& message)
        : std::runtime_error(message), status_(exitStatus) {}
    int exitStatus() const { return status_; }

private:
    int status_;
};

inline ToolError usageError(const std::string& message) { return ToolError(exitUsage, message); }
inline ToolError inputError(const std::string& message) { return ToolError(exitInput, message); }

// Error texts from libraries may span lines; the tools promise one line per error.
std::string oneLine(const std::string& text);

}  // namespace tonwerk::tools
