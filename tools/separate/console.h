// Keeps the tool's own output apart from what the library and ONNX Runtime
// print. The library logs to standard output and the runtime to standard
// error; while a Console lives, both descriptors point at a capture file,
// and the tool writes its summary and messages to copies of the original
// ones. Captured text is passed on to standard error when the tool says so,
// with colour codes removed unless standard error is a terminal.
#pragma once

#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <memory>
#include <ostream>
#include <string>

namespace tonwerk::tools {

class Console {
public:
    // Throws std::runtime_error when the descriptors cannot be redirected.
    Console();
    // Passes on what is still captured and restores both descriptors.
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // The tool's own standard output and standard error.
    std::ostream& out() { return out_; }
    std::ostream& err() { return err_; }
    bool errIsTerminal() const { return errIsTerminal_; }

    // Whether the library or the runtime printed anything not yet taken.
    bool hasCaptured();
    // What the library and the runtime printed since the last take or pass-on.
    std::string takeCaptured();
    // Writes the captured text to standard error; returns whether there was any.
    bool passOnCaptured();

    // The message of the last error record the library logged, if any
    // (e.g. "[INFERENCE_onnx] Exception during inference: ...").
    const std::string& lastLibraryError() const { return lastLibraryError_; }
    // Forgets it, so that the next one belongs to what follows.
    void forgetLibraryErrors() { lastLibraryError_.clear(); }

private:
    void noteErrors(const std::string& text);

    int savedOut_;
    int savedErr_;
    std::FILE* capture_;
    long long readOffset_ = 0;
    bool errIsTerminal_;
    __gnu_cxx::stdio_filebuf<char> outBuffer_;
    __gnu_cxx::stdio_filebuf<char> errBuffer_;
    std::ostream out_;
    std::ostream err_;
    std::string lastLibraryError_;
};

// `text` without ANSI escape sequences (ESC [ ... final byte).
std::string withoutEscapes(const std::string& text);

}  // namespace tonwerk::tools
