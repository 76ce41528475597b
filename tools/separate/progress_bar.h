// A one-line progress display on a terminal: percent, audio time done, speed
// as a multiple of real time, and the estimated time left.
#pragma once

#include <chrono>
#include <ostream>
#include <string>

namespace tonwerk::tools {

class ProgressBar {
public:
    // Draws nothing unless `enabled` (the caller checks for a terminal).
    // `label` starts the line, e.g. "[2/5] song.flac ".
    ProgressBar(std::ostream& out, bool enabled, double totalSeconds, std::string label = {});

    // Redraws at most a few times a second.
    void update(double doneSeconds);
    // Draws 100 % and erases the line, so that what follows starts clean.
    void complete();
    // Erases the line for other text; the next update draws it again.
    void clear();

private:
    void draw(double doneSeconds);

    std::ostream& out_;
    bool enabled_;
    double totalSeconds_;
    std::string label_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
    bool drawn_ = false;
};

// "m:ss.s" for durations below an hour, "h:mm:ss" above.
std::string formatDuration(double seconds);

}  // namespace tonwerk::tools
