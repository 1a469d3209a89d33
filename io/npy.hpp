// npy.hpp - NumPy .npy arrays (format versions 1-3, C order, little-endian
// float32 or uint8).
#ifndef QVN_IO_NPY_HPP
#define QVN_IO_NPY_HPP

#include <cstdint>
#include <string>
#include <vector>

namespace qvntool {

struct NpyArray {
    std::vector<size_t> shape;
    std::vector<float> values;  // C order
};

// Reads a float32 array ('<f4', C order). ToolError naming the file for a
// missing file, another dtype, Fortran order or a truncated body.
NpyArray ReadNpyFloat(const std::string& path);
// The same from the file's bytes; `path` only names them in messages.
NpyArray ParseNpyFloat(const std::string& path, const std::vector<uint8_t>& bytes);

// Writes atomically.
void WriteNpyFloat(const std::string& path, const std::vector<size_t>& shape,
                   const float* values);
void WriteNpyU8(const std::string& path, const std::vector<size_t>& shape,
                const uint8_t* values);

}  // namespace qvntool

#endif  // QVN_IO_NPY_HPP
