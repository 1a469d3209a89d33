// arguments.hpp - how the module's functions take their arguments: arrays
// checked for type, dtype, shape and memory before anything is written,
// pixel formats and orientation flags by name or value, fixed-length number
// sequences, paths. Every refusal raises TypeError (wrong kind of object),
// ValueError (a value out of range, non-finite, mis-shaped or overlapping)
// or MemoryError (a copy that cannot be made); checks run once per call,
// never per pixel.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvnpy {

namespace py = pybind11;

template <typename T>
using CArray = py::array_t<T, py::array::c_style>;

// Sides of every image and frame: keeps every product of two sides in 32 bits.
constexpr long kMaxSide = 1L << 15;

// ValueError with `message`; bytes that are not UTF-8 (a file name from
// os.listdir, say) appear as backslash escapes instead of spoiling the text.
[[noreturn]] void ThrowValueError(const std::string& message);

std::string ShapeText(const py::array& a);
std::string TypeName(py::handle obj);

template <typename T>
const char* DtypeName();

// `obj` as a NumPy array of dtype T, not yet copied: its shape can be checked
// before any memory is spent on a contiguous copy.
template <typename T>
py::array CheckedArray(py::handle obj, const char* name);

// `a` C-contiguous and aligned: itself when it is, else one copy. A copy that
// cannot be allocated raises MemoryError.
template <typename T>
CArray<T> Contiguous(const py::array& a);

template <typename T>
CArray<T> InputArray(py::handle obj, const char* name) {
    return Contiguous<T>(CheckedArray<T>(obj, name));
}

// A caller's output array: dtype T, C-contiguous, writeable, exactly `shape`.
// Never copied: the result must land in the caller's memory.
template <typename T>
CArray<T> OutputArray(py::handle obj, const char* name, const std::vector<py::ssize_t>& shape);

// ValueError when the bytes `out` spans overlap those `in` spans (the test
// of numpy.may_share_memory): the kernels read their input while they write,
// so an output over its own input would come out wrong without a word.
void CheckNoOverlap(const py::array& out, const py::array& in, const char* out_name,
                    const char* in_name);

template <typename T>
py::array_t<T> NewArray(const std::vector<py::ssize_t>& shape) {
    return py::array_t<T>(shape);
}

// Pixel format: a name users type ('nv21', ...) or the QVN_PIX_FMT value 0..15.
uint32_t ParseFormat(py::handle obj, const char* name);
// Orientation flags: an int 0..127 or names such as "rotate90r|mirror".
uint32_t ParseOrient(py::handle obj, const char* name);
// An int (or an object with __index__, bool excepted) within lo..hi, for the
// flag words that take any 32-bit value.
int64_t ParseWord(py::handle obj, const char* name, int64_t lo, int64_t hi);

// A fixed number of numbers from a tuple, list or array. Floats must be
// finite, integers must fit a long.
template <typename T>
std::vector<T> Numbers(py::handle obj, const char* name, size_t count);

int CheckedInt(long v, const char* name, long lo, long hi);
// ValueError "<name> must be a finite number" unless v is finite.
float Finite(float v, const char* name);
// The kit computes byte counts of whole images in signed 32-bit arithmetic:
// why h x w x c bytes are too many for it, or "" when they are not.
std::string BytesError(long h, long w, long c, const char* name);
void CheckBytes(long h, long w, long c, const char* name);

// A file path as the operating system takes it: str (encoded as os.fsencode
// does, so names from os.listdir work), bytes or os.PathLike. A NUL byte
// raises ValueError rather than cutting the name short.
std::string PathArg(py::handle obj);

}  // namespace qvnpy
