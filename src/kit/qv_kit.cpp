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
//
// Every transform works on normalised coordinates as "1 - value" in single
// precision. A point map is a possible exchange of x and y followed by 1 - v on
// x, on y or on both; the five maps of this section are:
//
//                 swap  1-x  1-y       (x, y) becomes
//   clockwise 90   yes   yes   no       (1 - y, x)
//   clockwise 180  no    yes   yes      (1 - x, 1 - y)
//   clockwise 270  yes   no    yes      (y, 1 - x)
//   mirror         no    yes   no       (1 - x, y)
//   vertical flip  no    no    yes      (x, 1 - y)

#include <immintrin.h>

#include <exception>
#include <iterator>
#include <utility>
#include <vector>

namespace {

// Maps n interleaved (x, y) points in place, eight points (two AVX registers)
// per step. 1 - v is computed for every lane and a blend keeps it only where
// the map asks for it, so each point gets exactly the scalar 1.0f - v.
template <bool kSwap, bool kOneMinusX, bool kOneMinusY>
inline void MapPoints(QVN_Point2D* points, uint32_t n) {
    float* p = &points[0].x;
    const __m256 one = _mm256_set1_ps(1.0f);
    // Lane i of a register holds x for even i and y for odd i.
    constexpr int kBlend = (kOneMinusX ? 0x55 : 0) | (kOneMinusY ? 0xAA : 0);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256 a = _mm256_loadu_ps(p + 2 * i);
        __m256 b = _mm256_loadu_ps(p + 2 * i + 8);
        if (kSwap) {
            a = _mm256_permute_ps(a, 0xB1);  // (x, y) -> (y, x) in every pair
            b = _mm256_permute_ps(b, 0xB1);
        }
        a = _mm256_blend_ps(a, _mm256_sub_ps(one, a), kBlend);
        b = _mm256_blend_ps(b, _mm256_sub_ps(one, b), kBlend);
        _mm256_storeu_ps(p + 2 * i, a);
        _mm256_storeu_ps(p + 2 * i + 8, b);
    }
    // At most seven points remain; points beyond n are never touched.
    for (; i < n; ++i) {
        float x = p[2 * i];
        float y = p[2 * i + 1];
        if (kSwap) std::swap(x, y);
        p[2 * i] = kOneMinusX ? 1.0f - x : x;
        p[2 * i + 1] = kOneMinusY ? 1.0f - y : y;
    }
}

inline void RectRotate90(QVN_Rect2D* r) {
    const QVN_Rect2D s = *r;
    r->x0 = 1.0f - s.y1;
    r->y0 = s.x0;
    r->x1 = 1.0f - s.y0;
    r->y1 = s.x1;
}

inline void RectRotate180(QVN_Rect2D* r) {
    const QVN_Rect2D s = *r;
    r->x0 = 1.0f - s.x1;
    r->y0 = 1.0f - s.y1;
    r->x1 = 1.0f - s.x0;
    r->y1 = 1.0f - s.y0;
}

inline void RectRotate270(QVN_Rect2D* r) {
    const QVN_Rect2D s = *r;
    r->x0 = s.y0;
    r->y0 = 1.0f - s.x1;
    r->x1 = s.y1;
    r->y1 = 1.0f - s.x0;
}

inline void RectFlipH(QVN_Rect2D* r) {
    const QVN_Rect2D s = *r;
    r->x0 = 1.0f - s.x1;
    r->x1 = 1.0f - s.x0;
}

inline void RectFlipV(QVN_Rect2D* r) {
    const QVN_Rect2D s = *r;
    r->y0 = 1.0f - s.y1;
    r->y1 = 1.0f - s.y0;
}

// Left/right counterparts among the 278 face landmarks: 132 pairs, flattened.
// Indices not named (16, 51-54, 60, 85, 91, 96, 100, 182, 198, 214, 230, ...)
// lie on the axis of symmetry. No index appears twice, so the order in which
// the pairs are exchanged does not matter.
constexpr int kFaceLandmarkMirrorPairs[] = {
    // jaw line 0-32, reversed about point 16
    0, 32, 1, 31, 2, 30, 3, 29, 4, 28, 5, 27, 6, 26, 7, 25, 8, 24, 9, 23, 10, 22, 11, 21,
    12, 20, 13, 19, 14, 18, 15, 17,
    33, 46, 34, 45, 35, 44, 36, 43, 37, 42, 38, 50, 39, 49, 40, 48, 41, 47,
    66, 78, 67, 77, 68, 76, 69, 75, 70, 74, 71, 81, 72, 80, 73, 79,
    102, 103,
    55, 65, 56, 64, 57, 63, 58, 62, 59, 61,
    82, 88, 83, 87, 84, 86, 89, 93, 90, 92, 94, 98, 95, 97, 99, 101,
    104, 123, 105, 122, 106, 121, 107, 120, 108, 119, 109, 118, 110, 117, 111, 129, 112, 128,
    113, 127, 114, 126, 115, 125, 116, 124,
    130, 163, 131, 162, 132, 161, 133, 160, 134, 159, 135, 158, 136, 157, 137, 156, 138, 155,
    139, 154, 140, 153, 141, 152, 142, 173, 143, 172, 144, 171, 145, 170, 146, 169, 147, 168,
    148, 167, 149, 166, 150, 165, 151, 164,
    174, 190, 175, 189, 176, 188, 177, 187, 178, 186, 179, 185, 180, 184, 181, 183,
    191, 205, 192, 204, 193, 203, 194, 202, 195, 201, 196, 200, 197, 199,
    206, 222, 207, 221, 208, 220, 209, 219, 210, 218, 211, 217, 212, 216, 213, 215,
    223, 237, 224, 236, 225, 235, 226, 234, 227, 233, 228, 232, 229, 231,
    238, 268, 239, 267, 240, 266, 241, 265, 242, 264, 243, 263, 244, 262, 245, 261, 246, 260,
    247, 259, 248, 258, 249, 276, 250, 275, 251, 274, 252, 273, 253, 272, 254, 271, 255, 270,
    256, 269, 257, 277,
};
static_assert(std::size(kFaceLandmarkMirrorPairs) == 2 * 132, "132 mirror pairs");

template <bool kSwap, bool kOneMinusX, bool kOneMinusY, void (*kRect)(QVN_Rect2D*)>
inline void MapFaces(QVN_FaceFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Face& face = arr->faces[i];
        kRect(&face.rect);
        MapPoints<kSwap, kOneMinusX, kOneMinusY>(face.landmarks, face.landmarksNum);
    }
}

template <bool kSwap, bool kOneMinusX, bool kOneMinusY, void (*kRect)(QVN_Rect2D*)>
inline void MapBodies(QVN_BodyFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Body& body = arr->bodies[i];
        kRect(&body.rect);
        MapPoints<kSwap, kOneMinusX, kOneMinusY>(body.landmarks, body.landmarksNum);
    }
}

template <void (*kRect)(QVN_Rect2D*)>
inline void MapObjRects(QVN_ObjCountDataArr* arr) {
    // count is signed: zero or less means the record holds nothing.
    for (int32_t i = 0; i < arr->count; ++i) kRect(&arr->objRectArr[i]);
}

template <void (*kRect)(QVN_Rect2D*)>
inline void MapGestures(QVN_GestureFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) kRect(&arr->gestures[i].rect);
}

}  // namespace

namespace quvas {
namespace kit {

void FaceFrameDataArr_clockwise_rotate_90_result(QVN_FaceFrameDataArr* arr) {
    MapFaces<true, true, false, RectRotate90>(arr);
}

void FaceFrameDataArr_clockwise_rotate_180_result(QVN_FaceFrameDataArr* arr) {
    MapFaces<false, true, true, RectRotate180>(arr);
}

void FaceFrameDataArr_clockwise_rotate_270_result(QVN_FaceFrameDataArr* arr) {
    MapFaces<true, false, true, RectRotate270>(arr);
}

void FaceFrameDataArr_flip_h_result(QVN_FaceFrameDataArr* arr) {
    // Built at the first face mirror of the process; the initialisation of a
    // function-local static is thread-safe, and the table is read-only after.
    static const std::vector<int> faceLandmarkMirrorPairs(std::begin(kFaceLandmarkMirrorPairs),
                                                          std::end(kFaceLandmarkMirrorPairs));
    const int* pairs = faceLandmarkMirrorPairs.data();
    const size_t pair_count = faceLandmarkMirrorPairs.size() / 2;
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Face& face = arr->faces[i];
        RectFlipH(&face.rect);
        MapPoints<false, true, false>(face.landmarks, face.landmarksNum);
        // A mirrored left eye is a right eye: put every landmark (and its score)
        // back under its own index. All 132 pairs are exchanged whatever
        // landmarksNum says, so slots beyond the valid count move too.
        for (size_t k = 0; k < pair_count; ++k) {
            const int a = pairs[2 * k];
            const int b = pairs[2 * k + 1];
            std::swap(face.landmarks[a], face.landmarks[b]);
            std::swap(face.landmarkScores[a], face.landmarkScores[b]);
        }
        std::swap(face.sidePair[0], face.sidePair[1]);
    }
}

void FaceFrameDataArr_flip_v_result(QVN_FaceFrameDataArr* arr) {
    // Top and bottom have no named counterparts: nothing is reordered.
    MapFaces<false, false, true, RectFlipV>(arr);
}

void ObjCountDataArr_clockwise_rotate_90_result(QVN_ObjCountDataArr* arr) {
    MapObjRects<RectRotate90>(arr);
}

void ObjCountDataArr_clockwise_rotate_180_result(QVN_ObjCountDataArr* arr) {
    MapObjRects<RectRotate180>(arr);
}

void ObjCountDataArr_clockwise_rotate_270_result(QVN_ObjCountDataArr* arr) {
    MapObjRects<RectRotate270>(arr);
}

void ObjCountDataArr_flip_h_result(QVN_ObjCountDataArr* arr) { MapObjRects<RectFlipH>(arr); }

void ObjCountDataArr_flip_v_result(QVN_ObjCountDataArr* arr) { MapObjRects<RectFlipV>(arr); }

void QVN_BodyFrameDataArr_clockwise_rotate_90_result(QVN_BodyFrameDataArr* arr) {
    MapBodies<true, true, false, RectRotate90>(arr);
}

void QVN_BodyFrameDataArr_clockwise_rotate_180_result(QVN_BodyFrameDataArr* arr) {
    MapBodies<false, true, true, RectRotate180>(arr);
}

void QVN_BodyFrameDataArr_clockwise_rotate_270_result(QVN_BodyFrameDataArr* arr) {
    MapBodies<true, false, true, RectRotate270>(arr);
}

void QVN_BodyFrameDataArr_flip_h_result(QVN_BodyFrameDataArr* arr) {
    // Body key points keep their indices under a mirror.
    MapBodies<false, true, false, RectFlipH>(arr);
}

void QVN_BodyFrameDataArr_flip_v_result(QVN_BodyFrameDataArr* arr) {
    MapBodies<false, false, true, RectFlipV>(arr);
}

}  // namespace kit
}  // namespace quvas

namespace {

// Every wrapper refuses a missing record the same way.
template <typename Record>
bool MissingRecord(const Record* record) {
    if (record != nullptr) return false;
    Log(kErr, "data is NULL.");
    return true;
}

// A mirror or vertical flip: nothing to refuse but a missing record.
template <typename Record>
int32_t TransformInPlace(Record* record, void (*transform)(Record*)) {
    if (MissingRecord(record)) return QVN_RESULT_INVALID_ARG;
    transform(record);
    return QVN_RESULT_SUCCESS;
}

template <typename Record>
struct QuarterTurns {
    void (*cw90)(Record*);
    void (*cw180)(Record*);
    void (*cw270)(Record*);
};

// Faces, bodies and object counts accept 0 and 360 as "no turn" and refuse
// other angles with QVN_RESULT_UNSUPPORTED and their family's own message.
// Gestures and rectangles refuse 360 and answer QVN_RESULT_FAIL. Detectors
// compare these codes and texts, so they stay as they are.
template <typename Record>
int32_t TurnInPlace(Record* record, int angle, const QuarterTurns<Record>& turns,
                    const char* refusal) {
    switch (angle) {
        case 0:
        case 360:
            return QVN_RESULT_SUCCESS;
        case 90:
            turns.cw90(record);
            return QVN_RESULT_SUCCESS;
        case 180:
            turns.cw180(record);
            return QVN_RESULT_SUCCESS;
        case 270:
            turns.cw270(record);
            return QVN_RESULT_SUCCESS;
        default:
            Log(kErr, "%s", refusal);
            return QVN_RESULT_UNSUPPORTED;
    }
}

// Gestures and rectangles: 0, 90, 180, 270 only.
bool GestureOrRectAngle(int angle) { return angle == 0 || angle == 90 || angle == 180 || angle == 270; }

void RectTurn(QVN_Rect2D* rect, int angle) {
    if (angle == 90) RectRotate90(rect);
    if (angle == 180) RectRotate180(rect);
    if (angle == 270) RectRotate270(rect);
}

void GesturesTurn(QVN_GestureFrameDataArr* arr, int angle) {
    if (angle == 90) MapGestures<RectRotate90>(arr);
    if (angle == 180) MapGestures<RectRotate180>(arr);
    if (angle == 270) MapGestures<RectRotate270>(arr);
}

// Unlike every other vertical flip, the new top is the old bottom as it
// stands, not mirrored: (x0, y0, x1, y1) -> (x0, y1, x1, 1 - y0). Callers have
// compensated for this for a long time, so it is kept; note that applying it
// twice does not give the rectangle back.
void RectFlipVKept(QVN_Rect2D* rect) {
    const QVN_Rect2D s = *rect;
    rect->y0 = s.y1;
    rect->y1 = 1.0f - s.y0;
}

}  // namespace

extern "C" {

QVN_API int32_t QVN_FaceFrameDataArr_Result_Rotate(QVN_FaceFrameDataArr* arr, int angle) {
    if (MissingRecord(arr)) return QVN_RESULT_INVALID_ARG;
    return TurnInPlace(arr, angle,
                       {quvas::kit::FaceFrameDataArr_clockwise_rotate_90_result,
                        quvas::kit::FaceFrameDataArr_clockwise_rotate_180_result,
                        quvas::kit::FaceFrameDataArr_clockwise_rotate_270_result},
                       "unsupported angle of rotation!");
}

QVN_API int32_t QVN_FaceFrameDataArr_Result_Mirror(QVN_FaceFrameDataArr* arr) {
    return TransformInPlace(arr, quvas::kit::FaceFrameDataArr_flip_h_result);
}

QVN_API int32_t QVN_FaceFrameDataArr_Result_FlipV(QVN_FaceFrameDataArr* arr) {
    return TransformInPlace(arr, quvas::kit::FaceFrameDataArr_flip_v_result);
}

QVN_API int32_t QVN_ObjCountDataArr_Result_Rotate(QVN_ObjCountDataArr* arr, int angle) {
    if (MissingRecord(arr)) return QVN_RESULT_INVALID_ARG;
    return TurnInPlace(arr, angle,
                       {quvas::kit::ObjCountDataArr_clockwise_rotate_90_result,
                        quvas::kit::ObjCountDataArr_clockwise_rotate_180_result,
                        quvas::kit::ObjCountDataArr_clockwise_rotate_270_result},
                       "unsupported angle for rotating result!");
}

QVN_API int32_t QVN_ObjCountDataArr_Result_Mirror(QVN_ObjCountDataArr* arr) {
    return TransformInPlace(arr, quvas::kit::ObjCountDataArr_flip_h_result);
}

QVN_API int32_t QVN_ObjCountDataArr_Result_FlipV(QVN_ObjCountDataArr* arr) {
    return TransformInPlace(arr, quvas::kit::ObjCountDataArr_flip_v_result);
}

QVN_API int32_t QVN_BodyFrameDataArr_Result_Rotate(QVN_BodyFrameDataArr* arr, int angle) {
    if (MissingRecord(arr)) return QVN_RESULT_INVALID_ARG;
    // The pose pipeline has always wrapped this step in a handler of its own;
    // its text names that pipeline. The transforms themselves do not throw:
    // what can reach the handler is an exception out of the log (a caller's
    // log callback may throw).
    try {
        return TurnInPlace(arr, angle,
                           {quvas::kit::QVN_BodyFrameDataArr_clockwise_rotate_90_result,
                            quvas::kit::QVN_BodyFrameDataArr_clockwise_rotate_180_result,
                            quvas::kit::QVN_BodyFrameDataArr_clockwise_rotate_270_result},
                           "Error: unsupported rotate angle!");
    } catch (const std::exception& e) {
        Log(kErr, "Pose::Process_Pose_Result failed. Error: %s", e.what());
        return QVN_RESULT_FAIL;
    }
}

QVN_API int32_t QVN_BodyFrameDataArr_Result_Mirror(QVN_BodyFrameDataArr* arr) {
    return TransformInPlace(arr, quvas::kit::QVN_BodyFrameDataArr_flip_h_result);
}

QVN_API int32_t QVN_BodyFrameDataArr_Result_FlipV(QVN_BodyFrameDataArr* arr) {
    return TransformInPlace(arr, quvas::kit::QVN_BodyFrameDataArr_flip_v_result);
}

QVN_API int32_t QVN_GestureFrameDataArr_Result_Rotate(QVN_GestureFrameDataArr* arr, int angle) {
    if (MissingRecord(arr)) return QVN_RESULT_INVALID_ARG;
    try {
        // The angle is judged on the first gesture: an empty array accepts
        // any angle, and a refused one changes nothing.
        if (arr->count > 0 && !GestureOrRectAngle(angle)) {
            Log(kErr, "unsupported angle of rotation!");
            return QVN_RESULT_FAIL;
        }
        GesturesTurn(arr, angle);
    } catch (const std::exception& e) {
        Log(kErr, "rotate result failed. Error: %s", e.what());
        return QVN_RESULT_FAIL;
    }
    return QVN_RESULT_SUCCESS;
}

QVN_API int32_t QVN_GestureFrameDataArr_Result_Mirror(QVN_GestureFrameDataArr* arr) {
    return TransformInPlace(arr, MapGestures<RectFlipH>);
}

QVN_API int32_t QVN_GestureFrameDataArr_Result_FlipV(QVN_GestureFrameDataArr* arr) {
    return TransformInPlace(arr, MapGestures<RectFlipV>);
}

QVN_API int32_t QVN_Rect2D_Result_Rotate(QVN_Rect2D* rect, int angle) {
    if (MissingRecord(rect)) return QVN_RESULT_INVALID_ARG;
    try {
        if (!GestureOrRectAngle(angle)) {
            Log(kErr, "unsupported angle of rotation!");
            return QVN_RESULT_FAIL;
        }
        RectTurn(rect, angle);
    } catch (const std::exception& e) {
        Log(kErr, "rotate result failed. Error: %s", e.what());
        return QVN_RESULT_FAIL;
    }
    return QVN_RESULT_SUCCESS;
}

QVN_API int32_t QVN_Rect2D_Result_Mirror(QVN_Rect2D* rect) {
    return TransformInPlace(rect, RectFlipH);
}

QVN_API int32_t QVN_Rect2D_Result_FlipV(QVN_Rect2D* rect) {
    return TransformInPlace(rect, RectFlipVKept);
}

}  // extern "C"


// ===========================================================================
// CPU image orientation
// ===========================================================================
//
// Plain byte movers: a pixel is `channels` bytes moved as a block, whatever
// the format. The output is byte for byte the pixel-by-pixel definition; only
// the order of the work differs. The pixels move through the core's plane
// drivers (kernels/planar.h, linked in privately), the same ones behind the
// core's turn kernels; kernels/README.md says which engine each uses and why.

#include "kernels/planar.h"

namespace {

namespace kernels = quvas::kernels;

// Bytes in a packed row of w pixels of n bytes.
inline ptrdiff_t Pitch(int w, int n) { return static_cast<ptrdiff_t>(w) * n; }

}  // namespace

extern "C" {

QVN_API int32_t QVN_Clockwise_Rotate_Image_CPU(const QVN_Image* src, QVN_Image* dst, int angle) {
    const int w = src->width;
    const int h = src->height;
    const int n = src->channels;
    const QVN_Rect2D r = src->rect;
    // Pixels move only for a real image; a pixel of no bytes moves nothing.
    const bool move = w > 0 && h > 0 && n > 0;
    switch (angle) {
        case 0: {
            // The size is a 32-bit product, as callers have always computed it.
            const int64_t bytes = static_cast<int64_t>(static_cast<int32_t>(
                static_cast<int64_t>(w) * h * n));
            if (bytes > 0) std::memcpy(dst->data, src->data, static_cast<size_t>(bytes));
            dst->width = w;
            dst->height = h;
            dst->channels = n;
            // The region of interest stays as the caller set it.
            return QVN_RESULT_SUCCESS;
        }
        case 90:
            if (move) kernels::RotateClockwise90(src->data, Pitch(w, n), dst->data, Pitch(h, n), w, h, n);
            dst->width = h;
            dst->height = w;
            dst->channels = n;
            dst->rect.x0 = 1.0f - r.y1;
            dst->rect.y0 = r.x0;
            dst->rect.x1 = 1.0f - r.y0;
            dst->rect.y1 = r.x1;
            return QVN_RESULT_SUCCESS;
        case 180:
            if (move) kernels::Rotate180(src->data, Pitch(w, n), dst->data, Pitch(w, n), w, h, n);
            dst->width = w;
            dst->height = h;
            dst->channels = n;
            dst->rect.x0 = 1.0f - r.x1;
            dst->rect.y0 = 1.0f - r.y1;
            dst->rect.x1 = 1.0f - r.x0;
            dst->rect.y1 = 1.0f - r.y0;
            return QVN_RESULT_SUCCESS;
        case 270:
            if (move) kernels::RotateClockwise270(src->data, Pitch(w, n), dst->data, Pitch(h, n), w, h, n);
            dst->width = h;
            dst->height = w;
            dst->channels = n;
            dst->rect.x0 = r.y0;
            dst->rect.y0 = 1.0f - r.x1;
            dst->rect.x1 = r.y1;
            dst->rect.y1 = 1.0f - r.x0;
            return QVN_RESULT_SUCCESS;
        default:
            Log(kErr, "[Quvas Error] unsupported rotate angle");
            return QVN_RESULT_INVALID_ARG;
    }
}

QVN_API int32_t QVN_Mirror_Image_CPU(const QVN_Image* src, QVN_Image* dst) {
    const int w = src->width;
    const int h = src->height;
    const int n = src->channels;
    const QVN_Rect2D r = src->rect;
    if (w > 0 && h > 0 && n > 0) kernels::Mirror(src->data, Pitch(w, n), dst->data, Pitch(w, n), w, h, n);
    // Only the horizontal extent of the region moves; the caller has set the
    // rest of dst (normally to a copy of src).
    dst->rect.x0 = 1.0f - r.x1;
    dst->rect.x1 = 1.0f - r.x0;
    return QVN_RESULT_SUCCESS;
}

QVN_API int32_t QVN_FlipV_Image_CPU(const QVN_Image* src, QVN_Image* dst) {
    const int h = src->height;
    const QVN_Rect2D r = src->rect;
    const int64_t row = static_cast<int64_t>(src->width) * src->channels;
    if (h > 0 && row > 0) {
        kernels::FlipVertical(src->data, row, dst->data, row, static_cast<size_t>(row), h);
    }
    dst->rect.y0 = 1.0f - r.y1;
    dst->rect.y1 = 1.0f - r.y0;
    return QVN_RESULT_SUCCESS;
}

}  // extern "C"
