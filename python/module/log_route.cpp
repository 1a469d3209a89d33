// log_route.cpp - per-thread buffers of log lines, emitted under the GIL.
#include "log_route.hpp"

#include <pybind11/pybind11.h>

#include <vector>

namespace py = pybind11;

namespace qvnpy {
namespace {

thread_local std::vector<std::string> t_log_lines;

void EmitLogLines() {
    if (t_log_lines.empty()) return;
    std::vector<std::string> lines;
    lines.swap(t_log_lines);
    py::object logger = py::module_::import("logging").attr("getLogger")("qvn_kit");
    // Every line of the kit is an error report (level 16).
    for (const std::string& line : lines) logger.attr("error")("%s", line);
}

}  // namespace

int CollectLogLine(const char* text) {
    t_log_lines.emplace_back(text != nullptr ? text : "");
    return 0;
}

void NoteLogLine(std::string text) { t_log_lines.push_back(std::move(text)); }

LogFlush::~LogFlush() {
    try {
        EmitLogLines();
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable("qvn_kit log forwarding");
    } catch (...) {
    }
}

}  // namespace qvnpy
