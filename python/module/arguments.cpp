// arguments.cpp - argument checks shared by every area of the module.
#include "arguments.hpp"

#include "common.hpp"
#include "pixel_format.h"

#include <climits>
#include <cmath>
#include <cstring>

namespace qvnpy {

namespace pixfmt = quvas::kit::pixfmt;
using py::detail::npy_api;

void ThrowValueError(const std::string& message) {
    PyObject* text = PyUnicode_DecodeUTF8(message.data(), static_cast<Py_ssize_t>(message.size()),
                                          "backslashreplace");
    if (text == nullptr) throw py::error_already_set();
    PyErr_SetObject(PyExc_ValueError, text);
    Py_DECREF(text);
    throw py::error_already_set();
}

std::string ShapeText(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) {
        if (i) s += ", ";
        s += std::to_string(a.shape(i));
    }
    if (a.ndim() == 1) s += ",";
    return s + ")";
}

std::string TypeName(py::handle obj) {
    return py::str(py::type::handle_of(obj).attr("__name__"));
}

template <>
const char* DtypeName<uint8_t>() {
    return "uint8";
}
template <>
const char* DtypeName<float>() {
    return "float32";
}

template <typename T>
py::array CheckedArray(py::handle obj, const char* name) {
    if (!py::isinstance<py::array>(obj)) {
        throw py::type_error(std::string(name) + " must be a numpy.ndarray of dtype " +
                             DtypeName<T>() + ", not " + TypeName(obj));
    }
    py::array a = py::reinterpret_borrow<py::array>(obj);
    if (!py::isinstance<py::array_t<T>>(obj)) {
        throw py::type_error(std::string(name) + " must have dtype " + DtypeName<T>() +
                             ", not " + std::string(py::str(a.dtype())));
    }
    return a;
}

template <typename T>
CArray<T> Contiguous(const py::array& a) {
    if (py::detail::check_flags(a.ptr(), py::array::c_style | npy_api::NPY_ARRAY_ALIGNED_)) {
        return py::reinterpret_borrow<CArray<T>>(a);
    }
    // NumPy's own conversion rather than array_t::ensure, which clears the
    // error and hands back a null array when the copy cannot be allocated.
    PyObject* copy = npy_api::get().PyArray_FromAny_(
        a.ptr(), py::dtype::of<T>().release().ptr(), 0, 0,
        npy_api::NPY_ARRAY_C_CONTIGUOUS_ | npy_api::NPY_ARRAY_ALIGNED_ |
            npy_api::NPY_ARRAY_ENSUREARRAY_,
        nullptr);
    if (copy == nullptr) throw py::error_already_set();  // MemoryError, as NumPy raised it
    return py::reinterpret_steal<CArray<T>>(copy);
}

template <typename T>
CArray<T> OutputArray(py::handle obj, const char* name, const std::vector<py::ssize_t>& shape) {
    py::array a = CheckedArray<T>(obj, name);
    std::string want = "(";
    for (size_t i = 0; i < shape.size(); ++i) want += (i ? ", " : "") + std::to_string(shape[i]);
    want += shape.size() == 1 ? ",)" : ")";
    bool same = a.ndim() == static_cast<py::ssize_t>(shape.size());
    for (size_t i = 0; same && i < shape.size(); ++i) same = a.shape(i) == shape[i];
    if (!same) {
        throw py::value_error(std::string(name) + " must have shape " + want + ", not " +
                              ShapeText(a));
    }
    if (!(a.flags() & py::array::c_style)) {
        throw py::value_error(std::string(name) +
                              " must be C-contiguous: the result is written into it in place");
    }
    if (!a.writeable()) throw py::value_error(std::string(name) + " is read-only");
    return py::reinterpret_borrow<CArray<T>>(obj);
}

template py::array CheckedArray<uint8_t>(py::handle, const char*);
template py::array CheckedArray<float>(py::handle, const char*);
template CArray<uint8_t> Contiguous<uint8_t>(const py::array&);
template CArray<float> Contiguous<float>(const py::array&);
template CArray<float> OutputArray<float>(py::handle, const char*, const std::vector<py::ssize_t>&);
template CArray<uint8_t> OutputArray<uint8_t>(py::handle, const char*,
                                              const std::vector<py::ssize_t>&);

namespace {

// The first and one past the last byte an array's elements occupy, strides
// of either sign included; false for an empty array.
bool ByteRange(const py::array& a, uintptr_t& first, uintptr_t& end) {
    if (a.size() == 0) return false;
    intptr_t low = 0, high = 0;
    for (py::ssize_t i = 0; i < a.ndim(); ++i) {
        const intptr_t span = static_cast<intptr_t>(a.shape(i) - 1) * a.strides(i);
        (span < 0 ? low : high) += span;
    }
    const uintptr_t base = reinterpret_cast<uintptr_t>(a.data());
    first = base + static_cast<uintptr_t>(low);
    end = base + static_cast<uintptr_t>(high) + static_cast<uintptr_t>(a.itemsize());
    return true;
}

// An int, or an integer scalar with __index__ (numpy.int64), as a long long;
// false for anything else (bools and arrays included). `overflow` when it
// does not fit 64 bits.
bool IntValue(py::handle obj, long long& value, bool& overflow, py::object& as_int) {
    if (PyBool_Check(obj.ptr()) || py::isinstance<py::array>(obj)) return false;
    if (!PyLong_Check(obj.ptr()) && !PyIndex_Check(obj.ptr())) return false;
    as_int = py::reinterpret_steal<py::object>(PyNumber_Index(obj.ptr()));
    if (!as_int) throw py::error_already_set();
    int over = 0;
    value = PyLong_AsLongLongAndOverflow(as_int.ptr(), &over);
    if (value == -1 && PyErr_Occurred()) throw py::error_already_set();
    overflow = over != 0;
    return true;
}

// The UTF-8 text of a str; ValueError for one that UTF-8 cannot encode (a
// lone surrogate).
const char* Utf8(py::handle obj, const char* name, Py_ssize_t& length) {
    const char* text = PyUnicode_AsUTF8AndSize(obj.ptr(), &length);
    if (text == nullptr) {
        PyErr_Clear();
        ThrowValueError(std::string(name) + " " + std::string(py::repr(obj)) +
                        " is not text that UTF-8 can encode");
    }
    return text;
}

}  // namespace

void CheckNoOverlap(const py::array& out, const py::array& in, const char* out_name,
                    const char* in_name) {
    uintptr_t out_first = 0, out_end = 0, in_first = 0, in_end = 0;
    if (ByteRange(out, out_first, out_end) && ByteRange(in, in_first, in_end) &&
        out_first < in_end && in_first < out_end) {
        throw py::value_error(std::string(out_name) + " must not share memory with " + in_name +
                              ": the result would be written over the input it is read from");
    }
}

uint32_t ParseFormat(py::handle obj, const char* name) {
    if (PyUnicode_Check(obj.ptr())) {
        // The names as the table spells them, without building std::strings:
        // this runs on every preprocess call.
        Py_ssize_t len = 0;
        const char* text = Utf8(obj, name, len);
        const pixfmt::Format* f = pixfmt::FindByName(text, static_cast<size_t>(len));
        if (f != nullptr && f->input_frame) return f->id;
        try {
            return qvntool::ParseFrameFormat(std::string(text, static_cast<size_t>(len)));
        } catch (const qvntool::ToolError& e) {
            throw py::value_error(std::string(name) + ": " + e.what());
        }
    }
    long long v = 0;
    bool overflow = false;
    py::object as_int;
    if (IntValue(obj, v, overflow, as_int)) {
        if (overflow || v < 0 || v > static_cast<long long>(pixfmt::kFormatCount) - 1) {
            throw py::value_error(std::string(name) + " " + std::string(py::str(as_int)) +
                                  " is not a pixel format value 0..15");
        }
        return static_cast<uint32_t>(v);
    }
    throw py::type_error(std::string(name) + " must be a str such as 'nv21' or an int, not " +
                         TypeName(obj));
}

uint32_t ParseOrient(py::handle obj, const char* name) {
    if (PyUnicode_Check(obj.ptr())) {
        Py_ssize_t len = 0;
        const char* text = Utf8(obj, name, len);
        try {
            return qvntool::ParseOrientation(std::string(text, static_cast<size_t>(len)));
        } catch (const qvntool::ToolError& e) {
            throw py::value_error(std::string(name) + ": " + e.what());
        }
    }
    long long v = 0;
    bool overflow = false;
    py::object as_int;
    if (IntValue(obj, v, overflow, as_int)) {
        if (overflow || v < 0 || v > 127) {
            throw py::value_error(std::string(name) + " " + std::string(py::str(as_int)) +
                                  " is out of range 0..127");
        }
        return static_cast<uint32_t>(v);
    }
    throw py::type_error(std::string(name) + " must be an int or a str such as 'rotate90r', not " +
                         TypeName(obj));
}

int64_t ParseWord(py::handle obj, const char* name, int64_t lo, int64_t hi) {
    long long v = 0;
    bool overflow = false;
    py::object as_int;
    if (!IntValue(obj, v, overflow, as_int)) {
        throw py::type_error(std::string(name) + " must be an int, not " + TypeName(obj));
    }
    if (overflow || v < lo || v > hi) {
        throw py::value_error(std::string(name) + " " + std::string(py::str(as_int)) +
                              " is not in " + std::to_string(lo) + ".." + std::to_string(hi));
    }
    return v;
}

namespace {

template <typename T>
T Number(py::handle v, const char* name);

template <>
long Number<long>(py::handle v, const char* name) {
    if (PyLong_Check(v.ptr())) {
        int over = 0;
        const long long x = PyLong_AsLongLongAndOverflow(v.ptr(), &over);
        if (x == -1 && PyErr_Occurred()) throw py::error_already_set();
        if (over != 0 || x < LONG_MIN || x > LONG_MAX) {
            throw py::value_error(std::string(name) + " value " + std::string(py::str(v)) +
                                  " is out of range");
        }
        return static_cast<long>(x);
    }
    return v.cast<long>();
}

template <>
float Number<float>(py::handle v, const char* name) {
    const float x = v.cast<float>();
    // The tool reads no infinity or NaN from its options either: one would
    // poison a tracker's state or reach a float-to-int conversion.
    if (!std::isfinite(x)) {
        throw py::value_error(std::string(name) + " must hold finite numbers, not " +
                              std::string(py::repr(v)));
    }
    return x;
}

}  // namespace

template <typename T>
std::vector<T> Numbers(py::handle obj, const char* name, size_t count) {
    std::vector<T> out;
    // Tuples, the usual case, without the sequence protocol.
    if (PyTuple_Check(obj.ptr()) && static_cast<size_t>(PyTuple_GET_SIZE(obj.ptr())) == count) {
        try {
            for (size_t i = 0; i < count; ++i) {
                out.push_back(Number<T>(PyTuple_GET_ITEM(obj.ptr(), i), name));
            }
            return out;
        } catch (const py::cast_error&) {
            out.clear();
        }
    }
    bool ok = !py::isinstance<py::str>(obj) && py::hasattr(obj, "__len__");
    if (ok) {
        try {
            size_t have = 0;
            py::object seq;
            if (py::isinstance<py::array>(obj)) {
                // Counted before any list is made of it: a broadcast array
                // of 2**30 elements must not become a list first.
                have = static_cast<size_t>(py::reinterpret_borrow<py::array>(obj).size());
                if (have == count) seq = obj.attr("ravel")().attr("tolist")();
            } else {
                seq = py::reinterpret_borrow<py::object>(obj);
                have = py::len(seq);
            }
            if (have != count) {
                throw py::value_error(std::string(name) + " must hold " + std::to_string(count) +
                                      " numbers, not " + std::to_string(have));
            }
            for (py::handle v : seq) out.push_back(Number<T>(v, name));
        } catch (const py::cast_error&) {
            ok = false;
        }
    }
    if (!ok) {
        throw py::type_error(std::string(name) + " must be a sequence of " +
                             std::to_string(count) + " numbers, not " + TypeName(obj));
    }
    return out;
}

template std::vector<long> Numbers<long>(py::handle, const char*, size_t);
template std::vector<float> Numbers<float>(py::handle, const char*, size_t);

int CheckedInt(long v, const char* name, long lo, long hi) {
    if (v < lo || v > hi) {
        throw py::value_error(std::string(name) + " " + std::to_string(v) + " is not in " +
                              std::to_string(lo) + ".." + std::to_string(hi));
    }
    return static_cast<int>(v);
}

float Finite(float v, const char* name) {
    if (!std::isfinite(v)) throw py::value_error(std::string(name) + " must be a finite number");
    return v;
}

std::string BytesError(long h, long w, long c, const char* name) {
    if (h * w * c <= 0x7fffffffL) return "";
    return std::string(name) + " of " + std::to_string(h) + " x " + std::to_string(w) + " x " +
           std::to_string(c) + " bytes is larger than 2**31 - 1 bytes";
}

void CheckBytes(long h, long w, long c, const char* name) {
    std::string error = BytesError(h, w, c, name);
    if (!error.empty()) throw py::value_error(error);
}

std::string PathArg(py::handle obj) {
    // What open() and os.stat() do: str is encoded with the file-system
    // encoding and surrogateescape (os.fsencode), os.PathLike is asked for
    // its path, and an embedded NUL raises ValueError.
    PyObject* bytes = nullptr;
    if (PyUnicode_FSConverter(obj.ptr(), &bytes) == 0) throw py::error_already_set();
    py::object owner = py::reinterpret_steal<py::object>(bytes);
    return std::string(PyBytes_AS_STRING(bytes), static_cast<size_t>(PyBytes_GET_SIZE(bytes)));
}

}  // namespace qvnpy
