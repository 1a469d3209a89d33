// console.cpp - the progress bar and the stopwatch.
#include "console.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace qvntool {

Progress::Progress(const std::string& label, long total)
    : label_(label), total_(total), active_(total > 1 && ::isatty(2) != 0) {}

Progress::~Progress() {
    if (active_) std::fputc('\n', stderr);
}

void Progress::Step(long done) {
    if (!active_) return;
    const int width = 30;
    int filled = static_cast<int>(width * done / total_);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(width - filled), '.');
    std::fprintf(stderr, "\r%s [%s] %ld/%ld", label_.c_str(), bar.c_str(), done, total_);
    std::fflush(stderr);
}

Stopwatch::Stopwatch()
    : start_(std::chrono::duration<double>(
                 std::chrono::steady_clock::now().time_since_epoch())
                 .count()) {}

double Stopwatch::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
               .count() -
           start_;
}

}  // namespace qvntool
