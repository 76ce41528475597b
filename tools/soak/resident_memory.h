// Resident memory of this process, read from /proc/self, with a peak that
// can be restarted so that each interval of a long run gets its own peak.
#pragma once

namespace tonwerk::soak {

struct ResidentMemory {
    double currentMb = 0;
    double peakMb = 0;  // since the process started or the last restartPeak()
};

// Throws std::runtime_error when /proc/self/status cannot be read.
ResidentMemory residentMemory();

// Starts a new peak at the current resident size (Linux clear_refs); returns
// false where the kernel cannot, and the peak then stays the whole run's.
bool restartPeak();

}  // namespace tonwerk::soak
