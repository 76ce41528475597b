#include "tool_error.h"

namespace tonwerk::tools {

std::string oneLine(const std::string& text) {
    std::string line;
    line.reserve(text.size());
    bool pendingSpace = false;
    for (char c : text) {
        if (c == '\n' || c == '\r' || c == '\t') {
            pendingSpace = !line.empty();
            continue;
        }
        if (pendingSpace && c != ' ') line += ' ';
        pendingSpace = false;
        line += c;
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

}  // namespace tonwerk::tools
