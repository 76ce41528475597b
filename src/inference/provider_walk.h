// Choosing the execution provider a model session runs on.
#pragma once

#include <deque>
#include <string>
#include <vector>

namespace tonwerk {

// The providers that have a way to be appended to session options here.
enum class ProviderKind { directMl, cuda, rocm };

// The runtime operations the provider walk needs, so that the walk can be
// driven by a fake runtime in tests. One object builds one session: each
// attempt starts from fresh session options, and a successful build
// replaces the session held so far.
class SessionRuntime {
public:
    virtual ~SessionRuntime() = default;
    virtual std::vector<std::string> availableProviders() = 0;
    virtual void beginAttempt() = 0;
    virtual void appendProvider(ProviderKind kind) = 0;
    virtual void createSession() = 0;
    // A session with default options, which runs on the CPU.
    virtual void createPlainSession() = 0;
    virtual bool hasSession() const = 0;
};

// The fixed order in which providers are tried, with `preferred` (when not
// empty) moved to the front whether or not it is a known name.
std::deque<std::string> providerPreference(const std::string& preferred);

// Builds a session on every available provider ahead of the CPU in
// preference order, keeping the last one that succeeded, and falls back to a
// plain CPU session when none did. Per-provider failures are logged and
// skipped; anything else is logged and rethrown.
void walkExecutionProviders(SessionRuntime& runtime, const std::string& preferred);

}  // namespace tonwerk
