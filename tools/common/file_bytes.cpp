#include "file_bytes.h"

#include "tool_error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace tonwerk::tools {

namespace fs = std::filesystem;

std::vector<unsigned char> readFileBytes(const std::string& path) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) throw inputError(path + ": is a directory, not a file");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw inputError("cannot read " + path + ": " + std::strerror(errno));
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw inputError("cannot read " + path + ": read error");
    return bytes;
}

void writeFileBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
    const fs::path target(path);
    fs::path temp = target;
    temp += ".tmp-" + std::to_string(::getpid());
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out) throw inputError("cannot write " + path + ": " + std::strerror(errno));
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) {
            std::error_code ignored;
            fs::remove(temp, ignored);
            throw inputError("cannot write " + path + ": write error");
        }
    }
    std::error_code ec;
    fs::rename(temp, target, ec);
    if (ec) {
        std::error_code ignored;
        fs::remove(temp, ignored);
        throw inputError("cannot write " + path + ": " + ec.message());
    }
}

}  // namespace tonwerk::tools
