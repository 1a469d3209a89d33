// library_log.cpp - the core's log lines captured and turned into failures.
#include "library_log.hpp"

#include "error.hpp"

#include <qvn_kit/qvn_kit.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace qvntool {
namespace {

std::vector<std::string>& Captured() {
    static std::vector<std::string> lines;
    return lines;
}

int CaptureLog(const char* text) {
    std::vector<std::string>& lines = Captured();
    if (lines.size() >= 8) return 0;  // the first lines say what went wrong
    std::string line(text, std::min<size_t>(std::strlen(text), 300));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    lines.push_back(line);
    return 0;
}

}  // namespace

void InstallLogRoute() {
    QVN_SetLogCallback(&CaptureLog);
    // Level-16 lines are the kit's refusals; make sure none is filtered out.
    QVN_SetLogLevel(16);
}

void CheckLibrary(const std::string& what) {
    std::vector<std::string>& lines = Captured();
    if (lines.empty()) return;
    std::string first = lines.front();
    lines.clear();
    throw ToolError(what + ": " + first, kExitLibrary);
}

}  // namespace qvntool
