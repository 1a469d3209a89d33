// parse.cpp - option values as users type them: sizes, number lists,
// orientation flags and frame format names.
#include "parse.hpp"

#include "error.hpp"
#include "pixel_format.h"

#include <qvn_kit/qvn_kit.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace qvntool {
namespace {

std::vector<std::string> Split(const std::string& text, const std::string& seps) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : text) {
        if (seps.find(c) != std::string::npos) {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur.push_back(c);
        }
    }
    parts.push_back(cur);
    return parts;
}

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool ToLong(const std::string& s, long& out) {
    std::string t = Trim(s);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(t.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    out = v;
    return true;
}

bool ToFloat(const std::string& s, float& out) {
    std::string t = Trim(s);
    if (t.empty()) return false;
    char* end = nullptr;
    errno = 0;
    float v = std::strtof(t.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(v)) return false;
    out = v;
    return true;
}

struct NamedFlag {
    const char* name;
    uint32_t value;
};
const NamedFlag kOrientNames[] = {
    {"upright", QVN_ORIENT_FMT_DEFAULT},       {"rotate90r", QVN_ORIENT_FMT_ROTATE_90R},
    {"rotate90l", QVN_ORIENT_FMT_ROTATE_90L},  {"rotate180", QVN_ORIENT_FMT_ROTATE_180},
    {"flipv", QVN_ORIENT_FMT_FLIPV},           {"mirror", QVN_ORIENT_FMT_MIRROR},
    {"box_rotate180", QVN_ORIENT_FMT_BOX_ROTATE_180},
};

}  // namespace

Size2 ParseSize(const std::string& text, const char* what) {
    std::vector<int> d = ParseDims(text, what, 2);
    return Size2{d[0], d[1]};
}

std::vector<int> ParseDims(const std::string& text, const char* what, size_t count) {
    std::vector<std::string> parts = Split(Lower(text), "x");
    std::vector<int> out;
    for (const std::string& p : parts) {
        long v = 0;
        if (!ToLong(p, v) || v <= 0 || v > (1L << 20)) {
            out.clear();
            break;
        }
        out.push_back(static_cast<int>(v));
    }
    if (out.size() != count) {
        std::string shape = count == 2 ? "WxH" : "CxHxW";
        throw ToolError(std::string("malformed ") + what + " '" + text + "': expected " + shape +
                            " with positive integers",
                        kExitUsage);
    }
    return out;
}

std::vector<float> ParseFloats(const std::string& text, const char* what, size_t count) {
    std::vector<std::string> parts = Split(text, ",");
    std::vector<float> out;
    for (const std::string& p : parts) {
        float v = 0;
        if (!ToFloat(p, v)) {
            out.clear();
            break;
        }
        out.push_back(v);
    }
    if (out.size() != count) {
        throw ToolError(std::string("malformed ") + what + " '" + text + "': expected " +
                            std::to_string(count) + " comma-separated numbers",
                        kExitUsage);
    }
    return out;
}

std::vector<int> ParseInts(const std::string& text, const char* what, size_t count) {
    std::vector<std::string> parts = Split(text, ",");
    std::vector<int> out;
    for (const std::string& p : parts) {
        long v = 0;
        if (!ToLong(p, v) || v < -(1L << 24) || v > (1L << 24)) {
            out.clear();
            break;
        }
        out.push_back(static_cast<int>(v));
    }
    if (out.size() != count) {
        throw ToolError(std::string("malformed ") + what + " '" + text + "': expected " +
                            std::to_string(count) + " comma-separated integers",
                        kExitUsage);
    }
    return out;
}

uint32_t ParseOrientation(const std::string& text) {
    long number = 0;
    if (ToLong(text, number)) {
        if (number < 0 || number > 127) {
            throw ToolError("orientation " + text + " is out of range 0..127", kExitUsage);
        }
        return static_cast<uint32_t>(number);
    }
    uint32_t flags = 0;
    for (const std::string& raw : Split(Lower(text), "|+")) {
        std::string name = Trim(raw);
        bool found = false;
        for (const NamedFlag& f : kOrientNames) {
            if (name == f.name) {
                flags |= f.value;
                found = true;
            }
        }
        if (!found) {
            throw ToolError("unknown orientation '" + name +
                                "' (use upright, rotate90r, rotate90l, rotate180, flipv, "
                                "mirror, box_rotate180 or a number)",
                            kExitUsage);
        }
    }
    return flags;
}

std::string OrientationName(uint32_t flags) {
    if (flags == 0) return "upright";
    std::string out;
    for (const NamedFlag& f : kOrientNames) {
        if (f.value != 0 && (flags & f.value) != 0) {
            if (!out.empty()) out += "|";
            out += f.name;
        }
    }
    return out;
}

uint32_t ParseFrameFormat(const std::string& text) {
    // The names are the format table's; every named format is an input frame.
    const std::string name = Lower(Trim(text));
    const quvas::kit::pixfmt::Format* f =
        quvas::kit::pixfmt::FindByName(name.data(), name.size());
    if (f != nullptr && f->input_frame) return f->id;
    throw ToolError("unknown frame format '" + text +
                        "' (use nv12, nv21, bgra, rgba, yuv420sp_a or yuv420sp_b)",
                    kExitUsage);
}

const char* FrameFormatName(uint32_t pix_fmt) { return quvas::kit::pixfmt::NameOf(pix_fmt); }

std::string Extension(const std::string& path) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return Lower(path.substr(dot));
}

}  // namespace qvntool
