// svg.hpp - raw against smoothed box tracks as an SVG drawing.
#ifndef QVN_TOOL_SVG_HPP
#define QVN_TOOL_SVG_HPP

#include "csv.hpp"

#include <string>
#include <vector>

namespace qvntool {

// Left panel: the box centres on the frame (frame_w x frame_h, drawn to
// scale) with the last raw and smoothed boxes; right panel: centre x and
// centre y over the frame number. Raw in grey, smoothed in colour.
std::string TrackSvg(const std::vector<BoxRow>& raw, const std::vector<BoxRow>& smooth,
                     int frame_w, int frame_h, const std::string& title);

}  // namespace qvntool

#endif  // QVN_TOOL_SVG_HPP
