// log_capture.hpp - collects the lines the core's logger emits, for tests
// that check exact messages. One capture at a time; not for threaded tests.
// A capture given a line throws std::runtime_error when that line arrives, as
// a caller's callback may.
#ifndef QVN_TESTS_LOG_CAPTURE_HPP
#define QVN_TESTS_LOG_CAPTURE_HPP

#include <quvas/utility/log.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

class LogCapture {
public:
    explicit LogCapture(std::string throw_on = "") {
        std::lock_guard<std::mutex> guard(Lock());
        Lines().clear();
        ThrowOn() = std::move(throw_on);
        quvas::utility::GetLogLevel(&saved_level_);
        quvas::utility::SetLogLevel(1);
        quvas::utility::SetLogCallback(&LogCapture::Sink);
    }
    ~LogCapture() {
        quvas::utility::SetLogCallback(nullptr);
        quvas::utility::SetLogLevel(saved_level_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines seen since construction or the last Take().
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> guard(Lock());
        std::vector<std::string> out;
        out.swap(Lines());
        return out;
    }

private:
    static int Sink(const char* text) {
        std::lock_guard<std::mutex> guard(Lock());
        Lines().emplace_back(text);
        if (!ThrowOn().empty() && ThrowOn() == text) throw std::runtime_error("sink refused the line");
        return 0;
    }
    static std::string& ThrowOn() {
        static std::string text;
        return text;
    }
    static std::mutex& Lock() {
        static std::mutex lock;
        return lock;
    }
    static std::vector<std::string>& Lines() {
        static std::vector<std::string> lines;
        return lines;
    }
    unsigned saved_level_ = 8;
};

#endif  // QVN_TESTS_LOG_CAPTURE_HPP
