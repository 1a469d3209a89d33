// file_read.hpp - input files read whole, with a cap on what is read.
#ifndef QVN_IO_FILE_READ_HPP
#define QVN_IO_FILE_READ_HPP

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace qvntool {

// An input opened for reading in pieces. ToolError(kExitInput) naming the
// file when it cannot be opened or read, and as soon as more than
// --max-input-mb has been read (which also stops endless inputs like
// /dev/zero).
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Up to `n` bytes into `buf`; 0 at the end of the input.
    size_t Read(uint8_t* buf, size_t n);
    // The length of a regular file; -1 for a pipe, device or other stream.
    int64_t KnownSize() const { return known_size_; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::FILE* file_ = nullptr;
    int64_t known_size_ = -1;
    uint64_t read_ = 0;
};

// Reads a whole file under --max-input-mb (see InputFile).
std::vector<uint8_t> ReadFileBytes(const std::string& path);

// What one kind of input may hold: `bytes` at most (when below
// --max-input-mb), refused with "'<path>' <too_long>"; `check_start` sees
// the first bytes (up to 64 KiB, or the whole file when shorter) before any
// more is read, so that an input of the wrong kind is refused at once.
struct ReadCap {
    uint64_t bytes = UINT64_MAX;
    std::string too_long;
    std::function<void(const uint8_t* data, size_t size)> check_start;
};
std::vector<uint8_t> ReadFileBytes(const std::string& path, const ReadCap& cap);

}  // namespace qvntool

#endif  // QVN_IO_FILE_READ_HPP
