// npy.cpp - the .npy header is a Python dict literal; only the three keys the
// format defines are read, which is all a C-order numeric array needs.
#include "npy.hpp"

#include "atomic_output.hpp"
#include "error.hpp"
#include "file_read.hpp"

#include <cstring>

namespace qvntool {
namespace {

std::string ValueOf(const std::string& header, const std::string& key) {
    size_t k = header.find("'" + key + "'");
    if (k == std::string::npos) return "";
    size_t colon = header.find(':', k);
    if (colon == std::string::npos) return "";
    size_t b = colon + 1;
    while (b < header.size() && header[b] == ' ') ++b;
    if (b >= header.size()) return "";
    size_t e = b;
    if (header[b] == '(') {
        e = header.find(')', b);
        return e == std::string::npos ? "" : header.substr(b, e - b + 1);
    }
    if (header[b] == '\'' || header[b] == '"') {
        e = header.find(header[b], b + 1);
        return e == std::string::npos ? "" : header.substr(b, e - b + 1);
    }
    e = header.find_first_of(",}", b);
    return e == std::string::npos ? "" : header.substr(b, e - b);
}

std::string ShapeText(const std::vector<size_t>& shape) {
    std::string s = "(";
    for (size_t i = 0; i < shape.size(); ++i) {
        s += std::to_string(shape[i]);
        if (shape.size() == 1 || i + 1 < shape.size()) s += ",";
        if (i + 1 < shape.size()) s += " ";
    }
    return s + ")";
}

std::vector<uint8_t> Encode(const std::string& descr, const std::vector<size_t>& shape,
                            const void* values, size_t bytes) {
    std::string dict = "{'descr': '" + descr + "', 'fortran_order': False, 'shape': " +
                       ShapeText(shape) + ", }";
    // Magic (6) + version (2) + length (2) + dict + padding + '\n' is a
    // multiple of 64.
    size_t total = 10 + dict.size() + 1;
    size_t pad = (64 - total % 64) % 64;
    dict.append(pad, ' ');
    dict.push_back('\n');
    std::vector<uint8_t> out = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0};
    out.push_back(static_cast<uint8_t>(dict.size() & 0xFF));
    out.push_back(static_cast<uint8_t>(dict.size() >> 8));
    out.insert(out.end(), dict.begin(), dict.end());
    const uint8_t* p = static_cast<const uint8_t*>(values);
    out.insert(out.end(), p, p + bytes);
    return out;
}

size_t Count(const std::vector<size_t>& shape) {
    size_t n = 1;
    for (size_t d : shape) n *= d;
    return n;
}

}  // namespace

NpyArray ReadNpyFloat(const std::string& path) { return ParseNpyFloat(path, ReadFileBytes(path)); }

NpyArray ParseNpyFloat(const std::string& path, const std::vector<uint8_t>& bytes) {
    auto bad = [&](const std::string& why) {
        return ToolError("malformed NumPy file '" + path + "': " + why, kExitInput);
    };
    if (bytes.size() < 10 || std::memcmp(bytes.data(), "\x93NUMPY", 6) != 0) {
        throw bad("no .npy signature");
    }
    uint8_t major = bytes[6];
    size_t header_len = 0, start = 0;
    if (major == 1) {
        header_len = bytes[8] | (static_cast<size_t>(bytes[9]) << 8);
        start = 10;
    } else if (major == 2 || major == 3) {
        if (bytes.size() < 12) throw bad("truncated header");
        header_len = bytes[8] | (static_cast<size_t>(bytes[9]) << 8) |
                     (static_cast<size_t>(bytes[10]) << 16) |
                     (static_cast<size_t>(bytes[11]) << 24);
        start = 12;
    } else {
        throw bad("unknown format version " + std::to_string(major));
    }
    if (bytes.size() < start + header_len) throw bad("truncated header");
    std::string header(bytes.begin() + static_cast<long>(start),
                       bytes.begin() + static_cast<long>(start + header_len));
    std::string descr = ValueOf(header, "descr");
    if (descr != "'<f4'" && descr != "\"<f4\"") {
        throw bad("dtype " + (descr.empty() ? std::string("missing") : descr) +
                  " is not little-endian float32 ('<f4')");
    }
    if (ValueOf(header, "fortran_order") != "False") throw bad("Fortran order is not supported");
    std::string shape_text = ValueOf(header, "shape");
    if (shape_text.size() < 2) throw bad("no shape");
    NpyArray arr;
    std::string inner = shape_text.substr(1, shape_text.size() - 2);
    size_t pos = 0;
    while (pos < inner.size()) {
        size_t comma = inner.find(',', pos);
        std::string item = inner.substr(pos, comma == std::string::npos ? std::string::npos
                                                                        : comma - pos);
        size_t b = item.find_first_not_of(' ');
        if (b != std::string::npos) {
            item = item.substr(b, item.find_last_not_of(' ') - b + 1);
            char* end = nullptr;
            unsigned long long v = std::strtoull(item.c_str(), &end, 10);
            if (*end != '\0' || item.empty() || v > (1ull << 31)) throw bad("bad shape");
            arr.shape.push_back(static_cast<size_t>(v));
        }
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    size_t count = 1;
    for (size_t d : arr.shape) {
        count *= d;
        if (count > (1ull << 31)) throw bad("shape " + shape_text + " is too large");
    }
    size_t body = start + header_len;
    if (count > (1ull << 31) || bytes.size() - body < count * 4) {
        throw bad("holds fewer values than its shape " + shape_text);
    }
    arr.values.resize(count);
    if (count > 0) std::memcpy(arr.values.data(), bytes.data() + body, count * 4);
    return arr;
}

void WriteNpyFloat(const std::string& path, const std::vector<size_t>& shape,
                   const float* values) {
    std::vector<uint8_t> out = Encode("<f4", shape, values, Count(shape) * 4);
    WriteBytesAtomically(path, out.data(), out.size());
}

void WriteNpyU8(const std::string& path, const std::vector<size_t>& shape,
                const uint8_t* values) {
    std::vector<uint8_t> out = Encode("|u1", shape, values, Count(shape));
    WriteBytesAtomically(path, out.data(), out.size());
}

}  // namespace qvntool
