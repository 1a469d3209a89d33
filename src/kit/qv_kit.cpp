// qv_kit.cpp - the flat interface's services: version, log control, image
// byte sizes, release of object-count results, validation of caller input,
// and the orientation of results and images.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using quvas::utility::Log;

namespace {
constexpr int kErr = QVN_LOG_LEVEL_ERROR;
}  // namespace

// ===========================================================================
// Library services
// ===========================================================================

extern "C" {

QVN_API int32_t QVN_GetKitVersion(uint32_t* major, uint32_t* minor) {
    *major = QVN_KIT_VERSION_MAJOR;
    *minor = QVN_KIT_VERSION_MINOR;
    unsigned core_major = 0;
    unsigned core_minor = 0;
    QVN_Get_Core_Version(core_major, core_minor);
    // A mismatch is reported only through the status, never through the log:
    // a detector may decide for itself whether it can live with it.
    if (core_major == QVN_KIT_VERSION_MAJOR && core_minor == QVN_KIT_VERSION_MINOR) {
        return QVN_RESULT_SUCCESS;
    }
    return QVN_RESULT_FAIL;
}

QVN_API int32_t QVN_SetLogTag(const char* tag) {
    return quvas::utility::SetLogTag(tag) == 0 ? QVN_RESULT_SUCCESS : QVN_RESULT_FAIL;
}

QVN_API int32_t QVN_SetLogCallback(int (*callback)(const char*)) {
    return quvas::utility::SetLogCallback(callback) == 0 ? QVN_RESULT_SUCCESS : QVN_RESULT_FAIL;
}

QVN_API int32_t QVN_SetLogLevel(uint32_t level) {
    // Level 0 would silence everything, errors included; it never reaches the core.
    if (level == 0) return QVN_RESULT_INVALID_ARG;
    return quvas::utility::SetLogLevel(level) == 0 ? QVN_RESULT_SUCCESS : QVN_RESULT_FAIL;
}

QVN_API int32_t QVN_GetLogLevel(uint32_t* level) {
    if (level == nullptr) return QVN_RESULT_INVALID_ARG;
    return quvas::utility::GetLogLevel(level) == 0 ? QVN_RESULT_SUCCESS : QVN_RESULT_FAIL;
}

QVN_API int32_t QVN_Get_QVNImage_Bytes(const QVN_Image* img, uint32_t* bytes) {
    *bytes = 0;
    // Products wrap in 32-bit unsigned arithmetic, as callers have always seen them.
    const uint32_t w = static_cast<uint32_t>(img->width);
    const uint32_t h = static_cast<uint32_t>(img->height);
    const uint32_t n = static_cast<uint32_t>(img->channels);
    const uint32_t wh = w * h;
    switch (img->pix_fmt) {
        case QVN_PIX_FMT_YUV420_A:
        case QVN_PIX_FMT_YUV420SP_A:
        case QVN_PIX_FMT_YUV420SP_B:
        case QVN_PIX_FMT_YUV420_B:
        case QVN_PIX_FMT_YUV420SP_C:
        case QVN_PIX_FMT_YUV420SP_D:
            // The chroma half is a signed division of the luma size.
            *bytes = wh + static_cast<uint32_t>(static_cast<int32_t>(wh) / 2);
            break;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
        case QVN_PIX_FMT_4BPP:
            *bytes = wh * 4u;
            break;
        case QVN_PIX_FMT_GRAY8:
            *bytes = wh;
            break;
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            *bytes = wh * 3u;
            break;
        case QVN_PIX_FMT_U8_CN:
            *bytes = wh * n;
            break;
        case QVN_PIX_FMT_F32_CN:
            *bytes = wh * n * 4u;
            break;
        default:
            return QVN_RESULT_FAIL;
    }
    return QVN_RESULT_SUCCESS;
}

QVN_API void QVN_ObjCountDataArr_Free(QVN_ObjCountDataArr* arr) {
    // A record with count <= 0 owns nothing, whatever its pointer says.
    if (arr->count > 0 && arr->objRectArr != nullptr) {
        std::free(arr->objRectArr);
        arr->objRectArr = nullptr;
    }
}

}  // extern "C"

// ===========================================================================
// Validators
// ===========================================================================

namespace quvas {
namespace kit {

bool Is_Valid_QVN_Image_For_CPU(const QVN_Image* img, bool forInput) {
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
    switch (img->pix_fmt) {
        case QVN_PIX_FMT_GRAY8:
        case QVN_PIX_FMT_4BPP:
        case QVN_PIX_FMT_U8_CN:
        case QVN_PIX_FMT_F32_CN:
            Log(kErr, "Found a invalid QVN_Image*. Error: QVN_Image.pix_fmt is unsupported for input.");
            return false;
        default:
            return true;
    }
}

bool Is_Valid_QVN_ImageArr_For_CPU(const QVN_ImageArr* arr, bool /*forInput*/) {
    if (arr == nullptr) {
        Log(kErr, "Found a invalid QVN_ImageArr*. Error: is NULL.");
        return false;
    }
    return true;
}

bool Is_Valid_QVN_ObjCountDataArr(const QVN_ObjCountDataArr* arr) {
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

namespace {

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

bool IS_Valid_FilePathArr(int count, const void** paths) {
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

}  // namespace kit
}  // namespace quvas

// ===========================================================================
// Result orientation transforms
// ===========================================================================

// ===========================================================================
// CPU image orientation
// ===========================================================================
