// log.cpp - the core runtime's logger, assertion, clock and version.
#include <quvas/utility/log.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

namespace quvas {
namespace utility {
namespace {

// One lock guards the tag and the callback and serialises emission, so that
// after SetLogCallback returns the previous callback is never called again
// and lines from different threads never interleave. It is recursive so that
// a callback may itself log.
std::recursive_mutex& EmitLock() {
    static std::recursive_mutex lock;
    return lock;
}

struct LogState {
    std::string tag = "quvas";
    int (*callback)(const char*) = nullptr;
};

LogState& State() {
    static LogState state;
    return state;
}

std::atomic<unsigned> g_level{kLogWarning};

std::string FormatV(const char* format, va_list args) {
    if (format == nullptr) return std::string();
    char stack_buf[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stack_buf, sizeof(stack_buf), format, copy);
    va_end(copy);
    if (needed < 0) return std::string();
    if (static_cast<size_t>(needed) < sizeof(stack_buf)) return std::string(stack_buf, needed);
    std::string text(static_cast<size_t>(needed), '\0');
    std::vsnprintf(&text[0], text.size() + 1, format, args);
    return text;
}

const char* LevelMark(int level) {
    if (level >= kLogError) return "E";
    if (level >= kLogWarning) return "W";
    if (level >= kLogInfo) return "I";
    if (level >= kLogDebug) return "D";
    return "V";
}

void Emit(int level, const std::string& text) {
    if (level < 0 || static_cast<unsigned>(level) < g_level.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::recursive_mutex> guard(EmitLock());
    LogState& state = State();
    if (state.callback != nullptr) {
        state.callback(text.c_str());
        return;
    }
    std::string line;
    line.reserve(state.tag.size() + text.size() + 6);
    line += state.tag;
    line += ' ';
    line += LevelMark(level);
    line += ' ';
    line += text;
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

std::string Log(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatV(format, args);
    va_end(args);
    Emit(level, text);
    return text;
}

void Assert(bool condition, const char* format, ...) {
    if (condition) return;
    va_list args;
    va_start(args, format);
    std::string text = FormatV(format, args);
    va_end(args);
    Emit(kLogError, text);
}

int SetLogTag(const char* tag) {
    if (tag == nullptr) return -1;
    std::string copy(tag);
    std::lock_guard<std::recursive_mutex> guard(EmitLock());
    State().tag.swap(copy);
    return 0;
}

int SetLogCallback(int (*callback)(const char*)) {
    std::lock_guard<std::recursive_mutex> guard(EmitLock());
    State().callback = callback;
    return 0;
}

int SetLogLevel(unsigned level) {
    if (level == 0) return -1;
    g_level.store(level, std::memory_order_relaxed);
    return 0;
}

int GetLogLevel(unsigned* level) {
    if (level == nullptr) return -1;
    *level = g_level.load(std::memory_order_relaxed);
    return 0;
}

double getTickCount() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

double getTickFrequency() { return 1e9; }

}  // namespace utility
}  // namespace quvas

void QVN_Get_Core_Version(unsigned& major, unsigned& minor) {
    major = 1;
    minor = 0;
}
