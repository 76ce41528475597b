#include "console.h"

#include <iostream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace tonwerk::tools {

namespace {

int duplicate(int fd) {
    const int copy = ::dup(fd);
    if (copy < 0) throw std::runtime_error("cannot duplicate a standard descriptor");
    return copy;
}

// The library's records read "DATE TIME ERROR [tid] [function@line] message".
constexpr const char* errorMarker = " ERROR [";

}  // namespace

Console::Console()
    : savedOut_((std::cout.flush(), std::fflush(stdout), duplicate(STDOUT_FILENO))),
      savedErr_(duplicate(STDERR_FILENO)),
      capture_(std::tmpfile()),
      errIsTerminal_(::isatty(STDERR_FILENO) == 1),
      outBuffer_(savedOut_, std::ios::out),
      errBuffer_(savedErr_, std::ios::out),
      out_(&outBuffer_),
      err_(&errBuffer_) {
    if (capture_ == nullptr || ::dup2(fileno(capture_), STDOUT_FILENO) < 0 ||
        ::dup2(fileno(capture_), STDERR_FILENO) < 0) {
        ::dup2(savedOut_, STDOUT_FILENO);
        ::dup2(savedErr_, STDERR_FILENO);
        if (capture_ != nullptr) std::fclose(capture_);
        throw std::runtime_error("cannot redirect the library's output");
    }
    err_.setf(std::ios::unitbuf);  // messages and progress appear at once
}

Console::~Console() {
    passOnCaptured();
    out_.flush();
    std::fflush(stdout);
    ::dup2(savedOut_, STDOUT_FILENO);
    ::dup2(savedErr_, STDERR_FILENO);
    std::fclose(capture_);
    // The stdio_filebuf members close savedOut_ and savedErr_.
}

bool Console::hasCaptured() {
    std::fflush(stdout);
    struct stat status {};
    return ::fstat(fileno(capture_), &status) == 0 && status.st_size > readOffset_;
}

std::string Console::takeCaptured() {
    if (!hasCaptured()) return {};
    struct stat status {};
    ::fstat(fileno(capture_), &status);
    std::string text(static_cast<std::size_t>(status.st_size - readOffset_), '\0');
    const ssize_t got = ::pread(fileno(capture_), text.data(), text.size(), static_cast<off_t>(readOffset_));
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    readOffset_ += static_cast<long long>(text.size());
    noteErrors(text);
    return text;
}

bool Console::passOnCaptured() {
    const std::string text = takeCaptured();
    if (text.empty()) return false;
    err_ << (errIsTerminal_ ? text : withoutEscapes(text)) << std::flush;
    return true;
}

void Console::noteErrors(const std::string& text) {
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        const std::size_t marker = line.find(errorMarker);
        const std::size_t threadEnd = marker == std::string::npos ? marker : line.find("] [", marker);
        const std::size_t functionEnd = threadEnd == std::string::npos ? threadEnd : line.find("] ", threadEnd + 3);
        if (functionEnd != std::string::npos) lastLibraryError_ = line.substr(functionEnd + 2);
    }
}

std::string withoutEscapes(const std::string& text) {
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\033' && i + 1 < text.size() && text[i + 1] == '[') {
            i += 2;
            while (i < text.size() && !(text[i] >= 0x40 && text[i] <= 0x7E)) ++i;
            continue;
        }
        plain += text[i];
    }
    return plain;
}

}  // namespace tonwerk::tools
