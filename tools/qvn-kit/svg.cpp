// svg.cpp - plain SVG 1.1, no scripts or external references.
#include "svg.hpp"

#include <algorithm>
#include <cstdio>

namespace qvntool {
namespace {

// Any finite value in full: "%.2f" of a large double is hundreds of digits.
std::string Num(double v) {
    char buf[64];
    int n = std::snprintf(buf, sizeof buf, "%.2f", v);
    if (n >= 0 && static_cast<size_t>(n) < sizeof buf) return buf;
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(&big[0], big.size(), "%.2f", v);
    big.pop_back();
    return big;
}

std::string Escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else if (c == '&') out += "&amp;";
        else out += c;
    }
    return out;
}

}  // namespace

std::string TrackSvg(const std::vector<BoxRow>& raw, const std::vector<BoxRow>& smooth,
                     int frame_w, int frame_h, const std::string& title) {
    const double panel = 360.0, margin = 30.0;
    double aspect = frame_h > 0 ? static_cast<double>(frame_w) / frame_h : 1.0;
    double fw = aspect >= 1 ? panel : panel * aspect;
    double fh = aspect >= 1 ? panel / aspect : panel;
    double total_w = margin * 3 + fw + panel, total_h = margin * 2 + std::max(fh, panel) + 20;
    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    s += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + Num(total_w) + "\" height=\"" +
         Num(total_h) + "\" viewBox=\"0 0 " + Num(total_w) + " " + Num(total_h) + "\">\n";
    s += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    s += "<text x=\"" + Num(margin) + "\" y=\"18\" font-family=\"sans-serif\" font-size=\"13\">" +
         Escape(title) + " (grey: raw, blue: smoothed)</text>\n";

    // Left panel: the frame.
    double ox = margin, oy = margin;
    s += "<rect x=\"" + Num(ox) + "\" y=\"" + Num(oy) + "\" width=\"" + Num(fw) +
         "\" height=\"" + Num(fh) + "\" fill=\"none\" stroke=\"black\"/>\n";
    auto path_of = [&](const std::vector<BoxRow>& rows) {
        std::string d;
        for (size_t i = 0; i < rows.size(); ++i) {
            double cx = ox + (rows[i].x + rows[i].w * 0.5) * fw;
            double cy = oy + (rows[i].y + rows[i].h * 0.5) * fh;
            d += (i == 0 ? "M" : " L") + Num(cx) + " " + Num(cy);
        }
        return d;
    };
    auto box_of = [&](const BoxRow& r, const char* colour) {
        return "<rect x=\"" + Num(ox + r.x * fw) + "\" y=\"" + Num(oy + r.y * fh) +
               "\" width=\"" + Num(r.w * fw) + "\" height=\"" + Num(r.h * fh) +
               "\" fill=\"none\" stroke=\"" + colour + "\" stroke-dasharray=\"4 2\"/>\n";
    };
    if (!raw.empty()) {
        s += "<path d=\"" + path_of(raw) + "\" fill=\"none\" stroke=\"#999\"/>\n";
        s += box_of(raw.back(), "#999");
    }
    if (!smooth.empty()) {
        s += "<path d=\"" + path_of(smooth) + "\" fill=\"none\" stroke=\"#1f5fbf\" " +
             "stroke-width=\"2\"/>\n";
        s += box_of(smooth.back(), "#1f5fbf");
    }

    // Right panel: centre x (solid) and y (dashed) over frames, 0..1.
    double px = margin * 2 + fw, py = margin;
    s += "<rect x=\"" + Num(px) + "\" y=\"" + Num(py) + "\" width=\"" + Num(panel) +
         "\" height=\"" + Num(panel) + "\" fill=\"none\" stroke=\"black\"/>\n";
    // Frame numbers may reach 2^63 - 1: the span is worked out in double.
    long f0 = 0, f1 = 1;
    if (!raw.empty()) {
        f0 = raw.front().frame;
        f1 = raw.back().frame;
    }
    if (!smooth.empty()) f1 = std::max(f1, smooth.back().frame);
    const double span = std::max(1.0, static_cast<double>(f1) - static_cast<double>(f0));
    auto series = [&](const std::vector<BoxRow>& rows, bool use_x) {
        std::string d;
        for (size_t i = 0; i < rows.size(); ++i) {
            double t = (static_cast<double>(rows[i].frame) - static_cast<double>(f0)) / span;
            double v = use_x ? rows[i].x + rows[i].w * 0.5 : rows[i].y + rows[i].h * 0.5;
            v = std::min(1.2, std::max(-0.2, v));
            d += (i == 0 ? "M" : " L") + Num(px + t * panel) + " " + Num(py + (1 - v) * panel);
        }
        return d;
    };
    for (int axis = 0; axis < 2; ++axis) {
        const char* dash = axis == 0 ? "" : " stroke-dasharray=\"6 3\"";
        if (!raw.empty()) {
            s += "<path d=\"" + series(raw, axis == 0) + "\" fill=\"none\" stroke=\"#999\"" +
                 dash + "/>\n";
        }
        if (!smooth.empty()) {
            s += "<path d=\"" + series(smooth, axis == 0) +
                 "\" fill=\"none\" stroke=\"#1f5fbf\" stroke-width=\"2\"" + dash + "/>\n";
        }
    }
    s += "<text x=\"" + Num(px) + "\" y=\"" + Num(py + panel + 16) +
         "\" font-family=\"sans-serif\" font-size=\"11\">centre x (solid), centre y (dashed), "
         "frames " +
         std::to_string(f0) + "-" + std::to_string(f1) + "</text>\n";
    s += "</svg>\n";
    return s;
}

}  // namespace qvntool
