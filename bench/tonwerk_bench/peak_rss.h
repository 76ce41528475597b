// Peak resident memory of a stream measured in a child process of its own,
// so that each figure is that stream's peak and not the parent's.
#pragma once

#include <string>

namespace tonwerk::bench {

// Runs this program again as `self --rss-child <seconds> --model <model>`
// and returns the child's peak resident set in MB. Throws
// std::runtime_error when the child cannot start or fails.
double childPeakRssMb(const std::string& self, double seconds, const std::string& model);

}  // namespace tonwerk::bench
