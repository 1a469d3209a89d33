// common.cpp - parsers, atomic output, progress bar and log routing.
#include "common.hpp"

#include <qvn_kit/qvn_kit.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

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
const NamedFlag kFormatNames[] = {
    {"nv12", QVN_PIX_FMT_YUV420SP_C},       {"nv21", QVN_PIX_FMT_YUV420SP_D},
    {"bgra", QVN_PIX_FMT_BGRA8888},         {"rgba", QVN_PIX_FMT_RGBA8888},
    {"yuv420sp_a", QVN_PIX_FMT_YUV420SP_A}, {"yuv420sp_b", QVN_PIX_FMT_YUV420SP_B},
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
    std::string name = Lower(Trim(text));
    for (const NamedFlag& f : kFormatNames) {
        if (name == f.name) return f.value;
    }
    throw ToolError("unknown frame format '" + text +
                        "' (use nv12, nv21, bgra, rgba, yuv420sp_a or yuv420sp_b)",
                    kExitUsage);
}

const char* FrameFormatName(uint32_t pix_fmt) {
    for (const NamedFlag& f : kFormatNames) {
        if (pix_fmt == f.value) return f.name;
    }
    return "unknown";
}

std::string Extension(const std::string& path) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return Lower(path.substr(dot));
}

std::vector<uint8_t> ReadFileBytes(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        throw ToolError("cannot open '" + path + "': " + std::strerror(errno), kExitInput);
    }
    const uint64_t limit = ToolLimits().max_input_bytes;
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> buf(1 << 16);
    size_t n = 0;
    bool too_long = false;
    while ((n = std::fread(buf.data(), 1, buf.size(), f)) > 0) {
        if (bytes.size() + n > limit) {
            too_long = true;
            break;
        }
        bytes.insert(bytes.end(), buf.data(), buf.data() + n);
    }
    bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (too_long) {
        throw ToolError("'" + path + "' is longer than the input limit of " +
                            std::to_string(limit >> 20) + " MiB (--max-input-mb)",
                        kExitInput);
    }
    if (failed) throw ToolError("cannot read '" + path + "'", kExitInput);
    return bytes;
}

namespace {

// An output prepared in `tmp`, to be moved to `target` on commit.
struct PendingOutput {
    std::string tmp, target, shown;
    bool in_place = false;  // copy into an existing FIFO or character device
};
std::vector<PendingOutput>& Pending() {
    static std::vector<PendingOutput> pending;
    return pending;
}

std::string DirOf(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Copies `tmp` into the existing FIFO or device `target` without replacing it.
void CopyInto(const std::string& tmp, const std::string& target, const std::string& shown) {
    std::vector<uint8_t> bytes;
    {
        std::FILE* in = std::fopen(tmp.c_str(), "rb");
        if (in == nullptr) throw ToolError("cannot write '" + shown + "'", kExitOutput);
        uint8_t buf[1 << 16];
        size_t n = 0;
        while ((n = std::fread(buf, 1, sizeof buf, in)) > 0) bytes.insert(bytes.end(), buf, buf + n);
        std::fclose(in);
    }
    int fd = ::open(target.c_str(), O_WRONLY | O_NOCTTY);
    if (fd < 0) {
        throw ToolError("cannot write '" + shown + "': " + std::strerror(errno), kExitOutput);
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t w = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            int err = errno;
            ::close(fd);
            throw ToolError("cannot write '" + shown + "': " + std::strerror(err), kExitOutput);
        }
        done += static_cast<size_t>(w);
    }
    if (::close(fd) != 0) throw ToolError("cannot write '" + shown + "'", kExitOutput);
}

}  // namespace

void WriteAtomically(const std::string& path,
                     const std::function<void(const std::string& tmp_path)>& write) {
    PendingOutput out;
    out.target = path;
    out.shown = path;
    struct stat st {};
    bool exists = ::lstat(path.c_str(), &st) == 0;
    if (exists && S_ISLNK(st.st_mode)) {
        // Replace what the link points to, not the link.
        char* real = ::realpath(path.c_str(), nullptr);
        if (real == nullptr || ::stat(real, &st) != 0) {
            std::free(real);
            throw ToolError("cannot write '" + path + "': it is a link to a missing file",
                            kExitOutput);
        }
        out.target = real;
        std::free(real);
    }
    mode_t mask = ::umask(0);
    ::umask(mask);
    mode_t mode = 0666 & ~mask;
    std::string dir = DirOf(out.target);
    if (exists) {
        if (S_ISREG(st.st_mode)) {
            mode = st.st_mode & 07777;  // keep a private file private
        } else if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode)) {
            out.in_place = true;
            const char* tmpdir = std::getenv("TMPDIR");
            dir = tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp";
        } else {
            const char* kind = S_ISDIR(st.st_mode) ? "a directory" : "not a regular file";
            throw ToolError("cannot write '" + path + "': it is " + kind, kExitOutput);
        }
    }
    std::string tmpl = out.in_place ? dir + "/qvn-kit-out-XXXXXX" : out.target + ".tmp-XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0) {
        throw ToolError("cannot create '" + path + "': " + std::strerror(errno), kExitOutput);
    }
    ::fchmod(fd, mode);
    ::close(fd);
    out.tmp = name.data();
    try {
        write(out.tmp);
    } catch (...) {
        std::remove(out.tmp.c_str());
        throw;
    }
    Pending().push_back(out);
}

void CommitOutputs() {
    std::vector<PendingOutput>& pending = Pending();
    try {
        while (!pending.empty()) {
            const PendingOutput& out = pending.front();
            if (out.in_place) {
                CopyInto(out.tmp, out.target, out.shown);
                std::remove(out.tmp.c_str());
            } else if (std::rename(out.tmp.c_str(), out.target.c_str()) != 0) {
                throw ToolError("cannot write '" + out.shown + "': " + std::strerror(errno),
                                kExitOutput);
            }
            pending.erase(pending.begin());
        }
    } catch (...) {
        DiscardOutputs();
        throw;
    }
}

void DiscardOutputs() {
    for (const PendingOutput& out : Pending()) std::remove(out.tmp.c_str());
    Pending().clear();
}

void WriteBytesAtomically(const std::string& path, const void* data, size_t size) {
    WriteAtomically(path, [&](const std::string& tmp) {
        std::FILE* f = std::fopen(tmp.c_str(), "wb");
        if (f == nullptr) throw ToolError("cannot write '" + path + "'", kExitOutput);
        size_t n = size == 0 ? 0 : std::fwrite(data, 1, size, f);
        bool ok = n == size && std::fclose(f) == 0;
        if (!ok) throw ToolError("cannot write '" + path + "'", kExitOutput);
    });
}

void WriteTextAtomically(const std::string& path, const std::string& text) {
    WriteBytesAtomically(path, text.data(), text.size());
}

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

namespace {

std::vector<std::string>& Captured() {
    static std::vector<std::string> lines;
    return lines;
}

int CaptureLog(const char* text) {
    std::vector<std::string>& lines = Captured();
    if (lines.size() >= 8) return 0;  // the first lines say what went wrong
    std::string line(text, std::min<size_t>(std::strlen(text), 300));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    lines.push_back(line);
    return 0;
}

std::vector<std::string>& Notices() {
    static std::vector<std::string> notes;
    return notes;
}

}  // namespace

void InstallLogRoute() {
    QVN_SetLogCallback(&CaptureLog);
    // Level-16 lines are the kit's refusals; make sure none is filtered out.
    QVN_SetLogLevel(16);
}

void CheckLibrary(const std::string& what) {
    std::vector<std::string>& lines = Captured();
    if (lines.empty()) return;
    std::string first = lines.front();
    lines.clear();
    throw ToolError(what + ": " + first, kExitLibrary);
}

void Notice(const std::string& text) { Notices().push_back(text); }

void FlushNotices() {
    for (const std::string& n : Notices()) std::fprintf(stderr, "qvn-kit: note: %s\n", n.c_str());
    Notices().clear();
}

Limits& ToolLimits() {
    static Limits limits;
    return limits;
}

void CheckPixels(uint64_t w, uint64_t h, const std::string& what, int code) {
    const uint64_t limit = ToolLimits().max_pixels;
    // Both factors are below 2^32 wherever they come from, so the product fits.
    if (w > 0xFFFFFFFFu || h > 0xFFFFFFFFu || w * h > limit) {
        throw ToolError(what + " of " + std::to_string(w) + "x" + std::to_string(h) +
                            " pixels is above the limit of " + std::to_string(limit) +
                            " pixels (--max-pixels)",
                        code);
    }
}

float Finite(float value, const char* option) {
    if (!std::isfinite(value)) {
        throw ToolError(std::string(option) + " must be a finite number", kExitUsage);
    }
    return value;
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
