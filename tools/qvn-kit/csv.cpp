// csv.cpp - reading and writing box tracks.
#include "csv.hpp"

#include "common.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace qvntool {

namespace {

// A cell as it may appear in a message: short and printable.
std::string Shown(const std::string& cell) {
    std::string out;
    for (char c : cell.substr(0, 40)) {
        out += static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f ? '?' : c;
    }
    if (cell.size() > 40) out += "...";
    return out;
}

}  // namespace

std::vector<BoxRow> ReadBoxCsv(const std::string& path) {
    std::vector<uint8_t> bytes = ReadFileBytes(path);
    return ParseBoxCsv(path, std::string(bytes.begin(), bytes.end()));
}

std::vector<BoxRow> ParseBoxCsv(const std::string& path, const std::string& text) {
    std::istringstream in(text);
    std::string line;
    std::vector<BoxRow> rows;
    int line_no = 0;
    while (std::getline(in, line)) {
        ++line_no;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        if (line[0] == '#') continue;
        if (rows.empty() && line.find("frame") != std::string::npos) continue;  // header
        std::vector<std::string> cells;
        std::string cell;
        std::istringstream ls(line);
        while (std::getline(ls, cell, ',')) cells.push_back(cell);
        auto bad = [&](const std::string& why) {
            return ToolError("malformed CSV '" + path + "' line " + std::to_string(line_no) +
                                 ": " + why,
                             kExitInput);
        };
        if (cells.size() < 5) throw bad("expected frame,x,y,w,h");
        BoxRow r;
        char* end = nullptr;
        errno = 0;
        r.frame = std::strtol(cells[0].c_str(), &end, 10);
        while (end && *end == ' ') ++end;
        if (errno != 0 || end == cells[0].c_str() || *end != '\0' || r.frame < 0) {
            throw bad("frame '" + Shown(cells[0]) + "' is not a non-negative integer");
        }
        float* fields[4] = {&r.x, &r.y, &r.w, &r.h};
        for (int i = 0; i < 4; ++i) {
            const std::string& c = cells[static_cast<size_t>(i) + 1];
            errno = 0;
            *fields[i] = std::strtof(c.c_str(), &end);
            while (end && *end == ' ') ++end;
            if (errno != 0 || end == c.c_str() || *end != '\0' || !std::isfinite(*fields[i])) {
                throw bad("value '" + Shown(c) + "' is not a finite number");
            }
        }
        if (!rows.empty() && r.frame <= rows.back().frame) {
            throw bad("frame " + std::to_string(r.frame) + " does not follow frame " +
                      std::to_string(rows.back().frame));
        }
        // Every missing frame becomes a predicted row of the output.
        if (!rows.empty() && r.frame - rows.back().frame > kMaxFrameGap) {
            throw bad("frame " + std::to_string(r.frame) + " follows frame " +
                      std::to_string(rows.back().frame) + " after a gap of more than " +
                      std::to_string(kMaxFrameGap) + " frames");
        }
        rows.push_back(r);
    }
    if (rows.empty()) {
        throw ToolError("CSV '" + path + "' holds no boxes", kExitInput);
    }
    return rows;
}

std::string BoxCsvText(const std::vector<BoxRow>& rows) {
    std::string out = "frame,x,y,w,h,kind\n";
    char buf[256];
    for (const BoxRow& r : rows) {
        std::snprintf(buf, sizeof buf, "%ld,%.9g,%.9g,%.9g,%.9g,%s\n", r.frame, r.x, r.y, r.w,
                      r.h, r.predicted ? "predicted" : "measured");
        out += buf;
    }
    return out;
}

}  // namespace qvntool
