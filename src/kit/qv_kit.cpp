// qv_kit.cpp - the flat interface's services (version, log control, image
// byte sizes, release of object-count results), and the entry points of the
// validators (validators.cpp), the result transforms (result_transforms.h,
// with the calls' refusals in result_calls.h) and the image turns
// (image_turns.cpp), each a thin call into the code of its concern.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <cstdlib>
#include <exception>

#include "image_turns.h"
#include "pixel_format.h"
#include "result_calls.h"
#include "result_transforms.h"
#include "validators.h"

using quvas::utility::Log;
namespace internal = quvas::kit::internal;
namespace pixfmt = quvas::kit::pixfmt;

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
    // Only the layout kind comes from the table.
    switch (pixfmt::LayoutOf(img->pix_fmt)) {
        case pixfmt::Layout::kTwoPlane420:
        case pixfmt::Layout::kThreePlane420:
            // The chroma half is a signed division of the luma size.
            *bytes = wh + static_cast<uint32_t>(static_cast<int32_t>(wh) / 2);
            break;
        case pixfmt::Layout::kPacked:
            *bytes = wh * pixfmt::Find(img->pix_fmt)->luma_bytes;
            break;
        case pixfmt::Layout::kChannels:
            *bytes = wh * n;
            break;
        case pixfmt::Layout::kFloatChannels:
            *bytes = wh * n * 4u;
            break;
        case pixfmt::Layout::kInvalid:
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
    return internal::ValidImageForCpu(img, forInput);
}

bool Is_Valid_QVN_ImageArr_For_CPU(const QVN_ImageArr* arr, bool /*forInput*/) {
    return internal::ValidImageArrForCpu(arr);
}

bool Is_Valid_QVN_ObjCountDataArr(const QVN_ObjCountDataArr* arr) {
    return internal::ValidObjCountDataArr(arr);
}

bool IS_Valid_FilePathArr(int count, const void** paths) {
    return internal::ValidFilePathArr(count, paths);
}

}  // namespace kit
}  // namespace quvas

// ===========================================================================
// Result orientation transforms
// ===========================================================================
//
// The per-record transforms: a point map and a rectangle move for each of
// the five moves (result_transforms.h), and the face mirror that also puts
// landmarks back under their own indices.

using internal::MapBodies;
using internal::MapFaces;
using internal::MapGestures;
using internal::MapObjRects;
using internal::RectFlipH;
using internal::RectFlipV;
using internal::RectRotate180;
using internal::RectRotate270;
using internal::RectRotate90;

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

void FaceFrameDataArr_flip_h_result(QVN_FaceFrameDataArr* arr) { internal::MirrorFaces(arr); }

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

// The flat calls: refusals of a missing record or angle (result_calls.h),
// then the transform.

using internal::GesturesTurn;
using internal::GestureOrRectAngle;
using internal::MissingRecord;
using internal::RectTurn;
using internal::TransformInPlace;
using internal::TurnInPlace;

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
    return TransformInPlace(rect, internal::RectFlipVKept);
}

}  // extern "C"

// ===========================================================================
// CPU image orientation (image_turns.cpp)
// ===========================================================================

extern "C" {

QVN_API int32_t QVN_Clockwise_Rotate_Image_CPU(const QVN_Image* src, QVN_Image* dst, int angle) {
    return internal::TurnImage(src, dst, angle);
}

QVN_API int32_t QVN_Mirror_Image_CPU(const QVN_Image* src, QVN_Image* dst) {
    return internal::MirrorImage(src, dst);
}

QVN_API int32_t QVN_FlipV_Image_CPU(const QVN_Image* src, QVN_Image* dst) {
    return internal::FlipImageV(src, dst);
}

}  // extern "C"
