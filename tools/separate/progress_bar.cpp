#include "progress_bar.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

namespace tonwerk::tools {

namespace {

constexpr int barWidth = 24;
constexpr auto redrawInterval = std::chrono::milliseconds(200);

}  // namespace

std::string formatDuration(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) return "?";
    char text[32];
    if (seconds < 3600) {
        const int minutes = static_cast<int>(seconds / 60);
        std::snprintf(text, sizeof text, "%d:%04.1f", minutes, seconds - 60.0 * minutes);
    } else {
        const long total = std::lround(seconds);
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    }
    return text;
}

ProgressBar::ProgressBar(std::ostream& out, bool enabled, double totalSeconds, std::string label)
    : out_(out), enabled_(enabled), totalSeconds_(totalSeconds), label_(std::move(label)),
      start_(std::chrono::steady_clock::now()), lastDraw_(start_) {}

void ProgressBar::update(double doneSeconds) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - lastDraw_ < redrawInterval) return;
    lastDraw_ = now;
    draw(doneSeconds);
}

void ProgressBar::draw(double doneSeconds) {
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double fraction = totalSeconds_ > 0 ? std::clamp(doneSeconds / totalSeconds_, 0.0, 1.0) : 0.0;
    const int filled = static_cast<int>(fraction * barWidth);
    const double speed = elapsed > 0 ? doneSeconds / elapsed : 0.0;
    const std::string eta = speed > 0 ? formatDuration((totalSeconds_ - doneSeconds) / speed) : "?";
    char line[400];
    std::snprintf(line, sizeof line, "\r%s[%s%s] %3d%%  %s / %s  %.1fx real time  ETA %s\033[K", label_.c_str(),
                  std::string(static_cast<std::size_t>(filled), '#').c_str(),
                  std::string(static_cast<std::size_t>(barWidth - filled), '.').c_str(),
                  static_cast<int>(fraction * 100), formatDuration(doneSeconds).c_str(),
                  formatDuration(totalSeconds_).c_str(), speed, eta.c_str());
    out_ << line << std::flush;
    drawn_ = true;
}

void ProgressBar::complete() {
    if (!enabled_) return;
    draw(totalSeconds_);
    clear();
}

void ProgressBar::clear() {
    if (enabled_ && drawn_) out_ << "\r\033[K" << std::flush;
    drawn_ = false;
}

}  // namespace tonwerk::tools
