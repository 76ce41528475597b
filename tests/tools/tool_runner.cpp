#include "tool_runner.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tonwerk::test {

namespace fs = std::filesystem;

namespace {

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

ToolRun runTool(const std::string& program, const std::vector<std::string>& args, const fs::path& scratch) {
    const std::string executable = (fs::path(TONWERK_BUILD_DIR) / program).string();
    const fs::path outPath = scratch / ".tool-stdout";
    const fs::path errPath = scratch / ".tool-stderr";
    std::vector<char*> argv{const_cast<char*>(executable.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) throw std::runtime_error("cannot start " + executable);
    int status = 0;
    waitpid(pid, &status, 0);

    ToolRun run;
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = readText(outPath);
    run.err = readText(errPath);
    fs::remove(outPath);
    fs::remove(errPath);
    return run;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

ScratchFolder::ScratchFolder(const std::string& name)
    : path_(fs::path(TONWERK_BUILD_DIR) / "tests" / "scratch" / (name + "-" + std::to_string(::getpid()))) {
    fs::remove_all(path_);
    fs::create_directories(path_);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::vector<std::string> folderEntries(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) return names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace tonwerk::test
