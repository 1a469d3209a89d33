// validators.cpp - the checks behind the exported validators: each refusal
// is one fixed log line at level 16 and a false result.
#include "validators.h"

#include <quvas/utility/log.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "pixel_format.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

using utility::Log;
constexpr int kErr = QVN_LOG_LEVEL_ERROR;

bool EndsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// Model and configuration file names end with one of these, tried in order.
bool HasModelSuffix(const std::string& path) {
    if (path.size() < 5) return false;
    static const char* const kSuffixes[] = {".json",   ".qvmod",   ".qvcfg",
                                            ".qvmods", ".qvcfgs", ".qvnmodel"};
    for (const char* suffix : kSuffixes) {
        if (EndsWith(path, suffix)) return true;
    }
    return false;
}

}  // namespace

bool ValidImageForCpu(const QVN_Image* img, bool forInput) {
    if (img == nullptr) {
        Log(kErr, "Found a invalid QVN_Image*. Error: is NULL.");
        return false;
    }
    if (img->data == nullptr) {
        Log(kErr, "Found a invalid QVN_Image*. Error: QVN_Image.data is NULL.");
        return false;
    }
    if (img->width == 0) {
        Log(kErr, "Found a invalid QVN_Image*. Error: QVN_Image.width is 0.");
        return false;
    }
    if (img->height == 0) {
        Log(kErr, "Found a invalid QVN_Image*. Error: QVN_Image.height is 0.");
        return false;
    }
    // An equality test on the two invalid values, not a range test: formats
    // above 15 pass, as they always have.
    if (img->pix_fmt == QVN_PIX_FMT_UNKNOW || img->pix_fmt == QVN_PIX_FMT_ERROR) {
        Log(kErr,
            "Found a invalid QVN_Image*. Error: QVN_Image.pix_fmt is QVN_PIX_FMT_ERROR or "
            "QVN_PIX_FMT_UNKNOW.");
        return false;
    }
    if (!forInput) return true;
    // The table's rows say which formats an input may have; a value that no
    // row describes (above 15) passes, as it always has.
    const pixfmt::Format* format = pixfmt::Find(img->pix_fmt);
    if (format != nullptr && !format->input_image) {
        Log(kErr, "Found a invalid QVN_Image*. Error: QVN_Image.pix_fmt is unsupported for input.");
        return false;
    }
    return true;
}

bool ValidImageArrForCpu(const QVN_ImageArr* arr) {
    if (arr == nullptr) {
        Log(kErr, "Found a invalid QVN_ImageArr*. Error: is NULL.");
        return false;
    }
    return true;
}

bool ValidObjCountDataArr(const QVN_ObjCountDataArr* arr) {
    if (arr == nullptr) {
        Log(kErr, "Found a invalid QVN_ObjCountDataArr*. Error: is NULL.");
        return false;
    }
    if (arr->objRectArr != nullptr) {
        Log(kErr,
            "Found a invalid QVN_ObjCountDataArr*. Error: QVN_ObjCountDataArr.objRectArr is NOT "
            "NULL, call QVN_ObjCountDataArr_Free() before resue the object.");
        return false;
    }
    return true;
}

bool ValidFilePathArr(int count, const void** paths) {
    if (count < 1) return true;
    for (int i = 0; i < count; ++i) {
        const char* raw = static_cast<const char*>(paths[i]);
        if (raw == nullptr) {
            Log(kErr, "Expect %d files, while file%d\u2019s path is NULL", count, i);
            return false;
        }
        const std::string path(raw);
        if (!HasModelSuffix(path)) {
            // The list in this message names .qvmods twice; detectors match on it.
            Log(kErr,
                "Expect %d files, while filepath%d %s is not end with following: .qvmod | .qvcfg "
                "| .qvmods | .qvmods | .qvcfgs | .json | .qvnmodel.",
                count, i, raw);
            return false;
        }
        FILE* file = std::fopen(raw, "rb");
        if (file == nullptr) {
            Log(kErr, "Expect %d files, while file%d %s open failed.", count, i, raw);
            return false;
        }
        std::fclose(file);
    }
    return true;
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
