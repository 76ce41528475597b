#include "peak_rss.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace tonwerk::bench {

double childPeakRssMb(const std::string& self, double seconds, const std::string& model) {
    const std::string length = std::to_string(seconds);
    std::vector<const char*> argv{self.c_str(), "--rss-child", length.c_str(), "--model", model.c_str(), nullptr};
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error(std::string("cannot start a child run: ") + std::strerror(errno));
    if (pid == 0) {
        execv(self.c_str(), const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) throw std::runtime_error(std::string("lost the child run: ") + std::strerror(errno));
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("the child run of " + length + " s failed");
    }
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KB on Linux
}

}  // namespace tonwerk::bench
