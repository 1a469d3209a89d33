// file_read.cpp - reading inputs whole without letting them take the memory.
#include "file_read.hpp"

#include "error.hpp"
#include "limits.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace qvntool {
namespace {

std::string TooLongForInputLimit(const std::string& path, uint64_t limit) {
    return "'" + path + "' is longer than the input limit of " + std::to_string(limit >> 20) +
           " MiB (--max-input-mb)";
}

}  // namespace

InputFile::InputFile(const std::string& path) : path_(path) {
    file_ = std::fopen(path.c_str(), "rb");
    if (file_ == nullptr) {
        throw ToolError("cannot open '" + path + "': " + std::strerror(errno), kExitInput);
    }
    struct stat st {};
    if (::fstat(fileno(file_), &st) == 0 && S_ISREG(st.st_mode)) known_size_ = st.st_size;
}

InputFile::~InputFile() { std::fclose(file_); }

size_t InputFile::Read(uint8_t* buf, size_t n) {
    const uint64_t limit = ToolLimits().max_input_bytes;
    const size_t got = std::fread(buf, 1, n, file_);
    if (got == 0 && std::ferror(file_) != 0) {
        throw ToolError("cannot read '" + path_ + "'", kExitInput);
    }
    if (read_ + got > limit) throw ToolError(TooLongForInputLimit(path_, limit), kExitInput);
    read_ += got;
    return got;
}

std::vector<uint8_t> ReadFileBytes(const std::string& path) { return ReadFileBytes(path, {}); }

std::vector<uint8_t> ReadFileBytes(const std::string& path, const ReadCap& cap) {
    InputFile in(path);
    const uint64_t input_limit = ToolLimits().max_input_bytes;
    const bool own_cap = cap.bytes < input_limit;
    const uint64_t limit = own_cap ? cap.bytes : input_limit;
    auto too_long = [&] {
        return ToolError(own_cap ? "'" + path + "' " + cap.too_long
                                 : TooLongForInputLimit(path, input_limit),
                         kExitInput);
    };
    // A regular file says its length: one that can never be accepted is
    // refused before anything is allocated or read.
    if (in.KnownSize() >= 0 && static_cast<uint64_t>(in.KnownSize()) > limit) throw too_long();
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> buf(size_t{1} << 16);
    bool started = !cap.check_start;
    try {
        if (in.KnownSize() > 0) bytes.reserve(static_cast<size_t>(in.KnownSize()));
        size_t n = 0;
        while ((n = in.Read(buf.data(), buf.size())) > 0) {
            if (bytes.size() + n > limit) throw too_long();
            if (bytes.size() + n > bytes.capacity()) {
                // Grow geometrically, but never past what may be accepted.
                bytes.reserve(static_cast<size_t>(std::min<uint64_t>(
                    std::max<uint64_t>(bytes.capacity() * 2, bytes.size() + n), limit)));
            }
            bytes.insert(bytes.end(), buf.data(), buf.data() + n);
            if (!started) {
                cap.check_start(bytes.data(), bytes.size());
                started = true;
            }
        }
    } catch (const std::bad_alloc&) {
        throw ToolError("'" + path + "' does not fit in memory (" +
                            std::to_string(bytes.size() >> 20) + " MiB read)",
                        kExitInput);
    }
    if (!started) cap.check_start(bytes.data(), bytes.size());
    return bytes;
}

}  // namespace qvntool
