// csv.cpp - reading and writing box tracks.
#include "csv.hpp"

#include "error.hpp"
#include "file_read.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>

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

namespace {

// Rows of a box track, one line at a time.
class BoxCsvParser {
public:
    explicit BoxCsvParser(const std::string& path) : path_(path) {}

    void Line(std::string line) {
        ++line_no_;
        if (line.size() > kMaxCsvLineBytes) {
            throw Bad("longer than " + std::to_string(kMaxCsvLineBytes) + " bytes");
        }
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos) return;
        if (line[0] == '#') return;
        if (rows_.empty() && line.find("frame") != std::string::npos) return;  // header
        std::vector<std::string> cells;
        std::string cell;
        std::istringstream ls(line);
        while (std::getline(ls, cell, ',')) cells.push_back(cell);
        if (cells.size() < 5) throw Bad("expected frame,x,y,w,h");
        BoxRow r;
        char* end = nullptr;
        errno = 0;
        r.frame = std::strtol(cells[0].c_str(), &end, 10);
        while (end && *end == ' ') ++end;
        if (errno != 0 || end == cells[0].c_str() || *end != '\0' || r.frame < 0) {
            throw Bad("frame '" + Shown(cells[0]) + "' is not a non-negative integer");
        }
        float* fields[4] = {&r.x, &r.y, &r.w, &r.h};
        for (int i = 0; i < 4; ++i) {
            const std::string& c = cells[static_cast<size_t>(i) + 1];
            errno = 0;
            *fields[i] = std::strtof(c.c_str(), &end);
            while (end && *end == ' ') ++end;
            if (errno != 0 || end == c.c_str() || *end != '\0' || !std::isfinite(*fields[i])) {
                throw Bad("value '" + Shown(c) + "' is not a finite number");
            }
        }
        if (!rows_.empty() && r.frame <= rows_.back().frame) {
            throw Bad("frame " + std::to_string(r.frame) + " does not follow frame " +
                      std::to_string(rows_.back().frame));
        }
        // Every missing frame becomes a predicted row of the output.
        if (!rows_.empty() && r.frame - rows_.back().frame > kMaxFrameGap) {
            throw Bad("frame " + std::to_string(r.frame) + " follows frame " +
                      std::to_string(rows_.back().frame) + " after a gap of more than " +
                      std::to_string(kMaxFrameGap) + " frames");
        }
        rows_.push_back(r);
    }

    std::vector<BoxRow> Rows() {
        if (rows_.empty()) throw ToolError("CSV '" + path_ + "' holds no boxes", kExitInput);
        return std::move(rows_);
    }

private:
    ToolError Bad(const std::string& why) const {
        return ToolError("malformed CSV '" + path_ + "' line " + std::to_string(line_no_) +
                             ": " + why,
                         kExitInput);
    }

    std::string path_;
    std::vector<BoxRow> rows_;
    int line_no_ = 0;
};

}  // namespace

std::vector<BoxRow> ReadBoxCsv(const std::string& path) {
    // Read line by line: a line longer than any box row is refused as soon
    // as it is, so an endless input without line breaks takes no memory.
    InputFile in(path);
    BoxCsvParser parser(path);
    std::string line;
    std::vector<uint8_t> buf(size_t{1} << 16);
    size_t n = 0;
    while ((n = in.Read(buf.data(), buf.size())) > 0) {
        for (size_t i = 0; i < n; ++i) {
            const char c = static_cast<char>(buf[i]);
            if (c == '\n') {
                parser.Line(std::move(line));
                line.clear();
            } else if (line.size() <= kMaxCsvLineBytes) {
                line.push_back(c);
            } else {
                parser.Line(std::move(line));  // refuses it
            }
        }
    }
    if (!line.empty()) parser.Line(std::move(line));
    return parser.Rows();
}

std::vector<BoxRow> ParseBoxCsv(const std::string& path, const std::string& text) {
    std::istringstream in(text);
    BoxCsvParser parser(path);
    std::string line;
    while (std::getline(in, line)) parser.Line(std::move(line));
    return parser.Rows();
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
