// Collects what the process writes to standard output (where log records go)
// between construction and text().
#pragma once

#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonwerk::test {

class CaptureStdout {
public:
    CaptureStdout() {
        std::fflush(stdout);
        file_ = std::tmpfile();
        saved_ = dup(STDOUT_FILENO);
        if (file_ == nullptr || saved_ < 0 || dup2(fileno(file_), STDOUT_FILENO) < 0) {
            throw std::runtime_error("cannot redirect stdout");
        }
    }
    ~CaptureStdout() { restore(); }
    CaptureStdout(const CaptureStdout&) = delete;
    CaptureStdout& operator=(const CaptureStdout&) = delete;

    // Ends the capture and returns everything written.
    std::string text() {
        restore();
        return text_;
    }

    // The captured lines that contain `needle`.
    std::vector<std::string> linesWith(const std::string& needle) {
        std::vector<std::string> lines;
        std::istringstream stream(text());
        for (std::string line; std::getline(stream, line);) {
            if (line.find(needle) != std::string::npos) lines.push_back(line);
        }
        return lines;
    }

private:
    void restore() {
        if (file_ == nullptr) return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        std::rewind(file_);
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file_)) > 0;) text_.append(buffer, n);
        std::fclose(file_);
        file_ = nullptr;
    }

    std::FILE* file_ = nullptr;
    int saved_ = -1;
    std::string text_;
};

}  // namespace tonwerk::test
