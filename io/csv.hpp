// csv.hpp - box tracks as CSV: one box per line, "frame,x,y,w,h", with an
// optional header line; x, y, w, h normalised to the frame.
#ifndef QVN_IO_CSV_HPP
#define QVN_IO_CSV_HPP

#include <cstddef>
#include <string>
#include <vector>

namespace qvntool {

struct BoxRow {
    long frame = 0;
    float x = 0, y = 0, w = 0, h = 0;
    bool predicted = false;  // written by the tracker without a measurement
};

// Largest step between two frames of a track: the tracker fills each missing
// frame with a predicted row, so the gap bounds the output.
constexpr long kMaxFrameGap = 100000;

// Longest line read: a box row is a few dozen bytes, and a spreadsheet's
// extra columns, a comment or a mistyped megabyte-long cell (which is shown
// shortened in its message) stay far below this.
constexpr size_t kMaxCsvLineBytes = size_t{1} << 24;

// Frames must be non-negative, strictly increasing and at most kMaxFrameGap
// apart, lines at most kMaxCsvLineBytes long. ToolError naming the file and
// line for anything else.
std::vector<BoxRow> ReadBoxCsv(const std::string& path);
// The same from the file's text; `path` only names it in messages.
std::vector<BoxRow> ParseBoxCsv(const std::string& path, const std::string& text);

// "frame,x,y,w,h,kind" with kind "measured" or "predicted"; nine
// significant digits so that floats survive the round trip.
std::string BoxCsvText(const std::vector<BoxRow>& rows);

}  // namespace qvntool

#endif  // QVN_IO_CSV_HPP
