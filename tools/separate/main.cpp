// tonwerk-separate: the reference host of the separation library. Reads
// audio files, streams each through a TonwerkProc and writes its stems.
#include "interrupt.h"
#include "options.h"
#include "pending_audio_file.h"
#include "separate_command.h"
#include "tool_error.h"

#include <sndfile.h>
#include <soxr.h>

#include <chrono>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <string>
#include <vector>

using namespace tonwerk::tools;

namespace {

// A closed standard descriptor would be handed out again by the next open()
// and receive what was meant for the console; /dev/null takes its place.
void occupyClosedStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1) ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupyClosedStandardDescriptors();
    const auto started = std::chrono::steady_clock::now();
    try {
        const SeparateOptions options = parseSeparateOptions(std::vector<std::string>(argv + 1, argv + argc));
        if (options.help) {
            std::cout << separateUsage;
            return exitOk;
        }
        if (options.version) {
            std::cout << "tonwerk-separate " << TONWERK_VERSION << " (" << sf_version_string() << ", "
                      << soxr_version() << ")\n";
            return exitOk;
        }
        if (!options.partTag.empty()) setPartTag(options.partTag);
        installInterruptHandlers();
        return options.serve ? runServeCommand(options) : runSeparateCommand(options, started);
    } catch (const ToolError& error) {
        std::cerr << "tonwerk-separate: " << oneLine(error.what())
                  << (error.exitStatus() == exitUsage ? " (see --help)" : "") << std::endl;
        return error.exitStatus();
    } catch (const std::bad_alloc&) {
        std::cerr << "tonwerk-separate: out of memory" << std::endl;
        return exitInput;
    } catch (const std::exception& error) {
        std::cerr << "tonwerk-separate: " << oneLine(error.what()) << std::endl;
        return exitInput;
    }
}
