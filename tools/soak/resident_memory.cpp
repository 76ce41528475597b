#include "resident_memory.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace tonwerk::soak {

namespace {

// A "Name:   1234 kB" line of /proc/self/status, in MB.
double statusFieldMb(const std::string& status, const std::string& name) {
    const std::size_t at = status.find("\n" + name + ":");
    if (at == std::string::npos) throw std::runtime_error("/proc/self/status has no " + name);
    std::istringstream field(status.substr(at + name.size() + 2));
    double kb = 0;
    if (!(field >> kb)) throw std::runtime_error("/proc/self/status: unreadable " + name);
    return kb / 1024.0;
}

}  // namespace

ResidentMemory residentMemory() {
    std::ifstream file("/proc/self/status");
    std::stringstream text;
    text << "\n" << file.rdbuf();
    if (!file) throw std::runtime_error("cannot read /proc/self/status");
    return {statusFieldMb(text.str(), "VmRSS"), statusFieldMb(text.str(), "VmHWM")};
}

bool restartPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";  // 5: reset the peak resident set size to the current one
    clear.flush();
    return static_cast<bool>(clear);
}

}  // namespace tonwerk::soak
