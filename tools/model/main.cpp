// tonwerk-model: checks a separation model against the library's model
// contract, and scrambles or unscrambles model files with a key.
#include "file_bytes.h"
#include "model_contract.h"
#include "model_scramble.h"
#include "tool_error.h"

#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace tonwerk::tools;

const char* const usageText =
    "usage: tonwerk-model check MODEL [--key KEY]\n"
    "       tonwerk-model scramble IN OUT --key KEY\n"
    "       tonwerk-model unscramble IN OUT --key KEY\n"
    "\n"
    "check       lists every way MODEL differs from the model contract (exit 1 if any);\n"
    "            --key unscrambles it first\n"
    "scramble    writes IN XOR KEY (byte i with key byte i mod key length) to OUT\n"
    "unscramble  the same operation, undoing a scramble with the same key\n"
    "\n"
    "exit status: 0 ok, 1 contract violations, 2 usage error, 3 unreadable or unwritable file\n";

struct Command {
    std::string name;
    std::vector<std::string> paths;
    std::string key;
    bool keyGiven = false;
};

Command parseCommand(int argc, char** argv) {
    Command command;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--key") {
            if (i + 1 >= argc) throw usageError("--key needs a value");
            command.key = argv[++i];
            command.keyGiven = true;
        } else if (arg.rfind("--key=", 0) == 0) {
            command.key = arg.substr(6);
            command.keyGiven = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw usageError("unknown option '" + arg + "'");
        } else if (command.name.empty()) {
            command.name = arg;
        } else {
            command.paths.push_back(arg);
        }
    }
    if (command.name.empty()) throw usageError("no command given (check, scramble or unscramble)");
    if (command.keyGiven && command.key.empty()) throw usageError("--key must not be empty");
    return command;
}

int runCheck(const Command& command) {
    if (command.paths.size() != 1) throw usageError("check takes exactly one MODEL");
    const std::string& path = command.paths[0];
    std::vector<unsigned char> bytes = readFileBytes(path);
    xorWithKey(bytes, command.key);
    const std::vector<std::string> violations = checkModelBytes(bytes.data(), bytes.size());
    if (violations.empty()) {
        std::cout << path << ": fits the model contract\n";
        return exitOk;
    }
    std::cout << path << ": " << violations.size() << (violations.size() == 1 ? " violation" : " violations")
              << " of the model contract\n";
    for (const std::string& violation : violations) std::cout << "  - " << violation << '\n';
    return exitViolations;
}

int runXor(const Command& command) {
    if (command.paths.size() != 2) throw usageError(command.name + " takes IN and OUT");
    if (!command.keyGiven) throw usageError(command.name + " needs --key");
    std::vector<unsigned char> bytes = readFileBytes(command.paths[0]);
    xorWithKey(bytes, command.key);
    // Allowed (the write is all or nothing), but the plain file is gone
    // afterwards, so say so: a mistyped OUT should not pass unnoticed.
    std::error_code ec;
    if (std::filesystem::equivalent(command.paths[0], command.paths[1], ec)) {
        std::cerr << "tonwerk-model: warning: IN and OUT are the same file; " << command.paths[0]
                  << " is replaced by its " << command.name << "d bytes\n";
    }
    writeFileBytes(command.paths[1], bytes);
    return exitOk;
}

int run(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::cout << usageText;
            return exitOk;
        }
    }
    const Command command = parseCommand(argc, argv);
    if (command.name == "check") return runCheck(command);
    if (command.name == "scramble" || command.name == "unscramble") return runXor(command);
    throw usageError("unknown command '" + command.name + "' (check, scramble or unscramble)");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const ToolError& error) {
        std::cerr << "tonwerk-model: " << oneLine(error.what())
                  << (error.exitStatus() == exitUsage ? " (see --help)" : "") << '\n';
        return error.exitStatus();
    } catch (const std::exception& error) {
        std::cerr << "tonwerk-model: " << oneLine(error.what()) << '\n';
        return exitInput;
    }
}
