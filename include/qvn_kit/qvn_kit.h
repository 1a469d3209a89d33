/*
 * qvn_kit.h - the flat C interface of libqvn_kit.
 *
 * Plain records and enumerations shared with detectors, status codes, and
 * every unmangled QVN_* entry point of the kit. This header is valid C11 and
 * C++17; under C++ the functions have C linkage.
 *
 * The records are a fixed binary interface (64-bit little-endian, natural
 * alignment). Their sizes and offsets are checked by static assertions at the
 * end of this header, so every consumer's compiler verifies the layout.
 */
#ifndef QVN_KIT_H
#define QVN_KIT_H

#include <stddef.h>
#include <stdint.h>

/* One export macro; everything else in the library is hidden. */
#if defined(QVN_KIT_BUILDING)
#define QVN_API __attribute__((visibility("default")))
#else
#define QVN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Status codes                                                             */
/* ------------------------------------------------------------------------ */

/* Every flat function that reports a status returns one of these four. The
 * same fault (an angle outside the accepted set) yields different codes in
 * different function families; the per-function code is documented there. */
#define QVN_RESULT_SUCCESS 0
#define QVN_RESULT_FAIL (-1)
#define QVN_RESULT_INVALID_ARG (-4)
#define QVN_RESULT_UNSUPPORTED (-6)

/* Kit version, compared with the core's by QVN_GetKitVersion. */
#define QVN_KIT_VERSION_MAJOR 1
#define QVN_KIT_VERSION_MINOR 0

/* Log level of every message the kit emits (the core's "error" level). */
#define QVN_LOG_LEVEL_ERROR 16

/* ------------------------------------------------------------------------ */
/* Enumerations                                                             */
/* ------------------------------------------------------------------------ */

/* Pixel format of a QVN_Image. Stored as a 32-bit word in the records. */
typedef enum QVN_PIX_FMT {
    QVN_PIX_FMT_UNKNOW = 0,        /* invalid */
    QVN_PIX_FMT_YUV420_A = 1,      /* three-plane 4:2:0: Y, then U, then V */
    QVN_PIX_FMT_YUV420SP_A = 2,    /* two-plane 4:2:0, BT.709 weights */
    QVN_PIX_FMT_YUV420SP_B = 3,    /* two-plane 4:2:0, BT.601 full-range weights */
    QVN_PIX_FMT_YUV420_B = 4,      /* 4:2:0 */
    QVN_PIX_FMT_BGRA8888 = 5,      /* bytes B, G, R, A */
    QVN_PIX_FMT_RGBA8888 = 6,      /* bytes R, G, B, A */
    QVN_PIX_FMT_GRAY8 = 7,         /* one byte; not an input frame */
    QVN_PIX_FMT_YUV420SP_C = 8,    /* two-plane 4:2:0, BT.601 in 64ths */
    QVN_PIX_FMT_YUV420SP_D = 9,    /* as 8 with the chroma bytes swapped */
    QVN_PIX_FMT_RGB888 = 10,       /* three bytes a pixel */
    QVN_PIX_FMT_BGR888 = 11,       /* three bytes a pixel */
    QVN_PIX_FMT_4BPP = 12,         /* four bytes a pixel; not an input frame */
    QVN_PIX_FMT_U8_CN = 13,        /* `channels` bytes a pixel; not an input frame */
    QVN_PIX_FMT_F32_CN = 14,       /* `channels` floats a pixel; not an input frame */
    QVN_PIX_FMT_ERROR = 15         /* invalid */
} QVN_PIX_FMT;

/* Orientation flags of a frame: how its content is turned or mirrored
 * relative to the upright scene, i.e. what the kit undoes before a model
 * sees it. A flip bit may be combined with one rotation bit. */
typedef enum QVN_ORIENT_FMT {
    QVN_ORIENT_FMT_DEFAULT = 0,         /* upright */
    QVN_ORIENT_FMT_ROTATE_90R = 1,      /* upright (x, y) lies at (1 - y, x) */
    QVN_ORIENT_FMT_ROTATE_90L = 2,      /* upright (x, y) lies at (y, 1 - x) */
    QVN_ORIENT_FMT_ROTATE_180 = 4,      /* half turn */
    QVN_ORIENT_FMT_FLIPV = 8,           /* y -> 1 - y */
    QVN_ORIENT_FMT_MIRROR = 16,         /* x -> 1 - x */
    QVN_ORIENT_FMT_BOX_ROTATE_180 = 64  /* half turn for boxes, identity for matrices */
} QVN_ORIENT_FMT;

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* ------------------------------------------------------------------------ */

/* A box in normalised coordinates: 0 at the left/top edge, 1 at the
 * right/bottom edge of the frame. */
typedef struct QVN_Rect2D {
    float x0; /* left */
    float y0; /* top */
    float x1; /* right */
    float y1; /* bottom */
} QVN_Rect2D;

/* A normalised point. */
typedef struct QVN_Point2D {
    float x;
    float y;
} QVN_Point2D;

/* One frame, tightly packed (row pitch = width * bytes per pixel; two-plane
 * YUV has its interleaved chroma plane right after the luma bytes). */
typedef struct QVN_Image {
    uint32_t ori_fmt;   /* QVN_ORIENT_FMT flags */
    uint32_t pix_fmt;   /* QVN_PIX_FMT */
    uint32_t mode_fmt;  /* carried with the frame; the kit never reads it */
    int32_t width;      /* pixels; 0 is invalid */
    int32_t height;     /* pixels; 0 is invalid */
    int32_t channels;   /* bytes per pixel of packed formats; values per
                           pixel of QVN_PIX_FMT_U8_CN / QVN_PIX_FMT_F32_CN */
    QVN_Rect2D rect;    /* region of interest, normalised */
    uint8_t* data;      /* caller-owned pixels; NULL is invalid */
} QVN_Image;

/* A caller-owned collection of images. The kit only checks the pointer. */
typedef struct QVN_ImageArr {
    int32_t count;
    QVN_Image* images;
} QVN_ImageArr;

/* Capacities of the result arrays. The kit never bounds `count` by them: the
 * transforms trust the producer of the results. */
#define QVN_MAX_FACE_NUM 16
#define QVN_MAX_BODY_NUM 16
#define QVN_MAX_GESTURE_NUM 16
#define QVN_FACE_LANDMARK_NUM 278
#define QVN_BODY_LANDMARK_NUM 35

/* One face: 852 32-bit words. Fields named reserved* and id/score are the
 * producer's; the kit never reads or writes them. */
typedef struct QVN_Face {
    int32_t id;                                      /* word 0 */
    QVN_Rect2D rect;                                 /* words 1-4 */
    float score;                                     /* word 5 */
    float reserved0;                                 /* word 6 */
    uint32_t landmarksNum;                           /* word 7, at most 278 */
    QVN_Point2D landmarks[QVN_FACE_LANDMARK_NUM];    /* words 8-563 */
    float landmarkScores[QVN_FACE_LANDMARK_NUM];     /* words 564-841 */
    float reserved1[2];                              /* words 842-843 */
    int32_t sidePair[2];                             /* words 844-845, swapped by a mirror */
    float reserved2[6];                              /* words 846-851 */
} QVN_Face;

typedef struct QVN_FaceFrameDataArr {
    uint32_t count;
    QVN_Face faces[QVN_MAX_FACE_NUM];
} QVN_FaceFrameDataArr;

/* One body: 76 32-bit words. */
typedef struct QVN_Body {
    int32_t id;                                      /* word 0, not read by the kit */
    QVN_Rect2D rect;                                 /* words 1-4 */
    uint32_t landmarksNum;                           /* word 5 */
    QVN_Point2D landmarks[QVN_BODY_LANDMARK_NUM];    /* words 6-75 */
} QVN_Body;

typedef struct QVN_BodyFrameDataArr {
    uint32_t count;
    QVN_Body bodies[QVN_MAX_BODY_NUM];
} QVN_BodyFrameDataArr;

/* One gesture: 6 32-bit words. */
typedef struct QVN_Gesture {
    int32_t label;      /* word 0, not read by the kit */
    QVN_Rect2D rect;    /* words 1-4 */
    float score;        /* word 5, not read by the kit */
} QVN_Gesture;

typedef struct QVN_GestureFrameDataArr {
    uint32_t count;
    QVN_Gesture gestures[QVN_MAX_GESTURE_NUM];
} QVN_GestureFrameDataArr;

/* Object-count results: `count` rectangles in a heap array made by the
 * producer with malloc/calloc/realloc and released by
 * QVN_ObjCountDataArr_Free. A record that still holds an array must be freed
 * before it is reused. */
typedef struct QVN_ObjCountDataArr {
    int32_t count;          /* <= 0 means none */
    QVN_Rect2D* objRectArr;
} QVN_ObjCountDataArr;

/* ------------------------------------------------------------------------ */
/* Library services                                                         */
/* ------------------------------------------------------------------------ */

/* Writes the kit's version (1.0) and returns 0 when the core's version is
 * 1.0 as well, -1 otherwise. */
QVN_API int32_t QVN_GetKitVersion(uint32_t* major, uint32_t* minor);

/* Forwarded to the core's logger: 0 on success, -1 when the core refuses. */
QVN_API int32_t QVN_SetLogTag(const char* tag);
QVN_API int32_t QVN_SetLogCallback(int (*callback)(const char*));
/* Level 0 is refused with -4 and never reaches the core. */
QVN_API int32_t QVN_SetLogLevel(uint32_t level);
/* NULL is refused with -4. */
QVN_API int32_t QVN_GetLogLevel(uint32_t* level);

/* Byte size of an image's pixel data by its format; -1 (size 0) for a format
 * without a size. Neither pointer is checked. */
QVN_API int32_t QVN_Get_QVNImage_Bytes(const QVN_Image* img, uint32_t* bytes);

/* Frees objRectArr when count > 0 and the pointer is set, then sets it to
 * NULL; count is left as it was. */
QVN_API void QVN_ObjCountDataArr_Free(QVN_ObjCountDataArr* arr);

/* ------------------------------------------------------------------------ */
/* Result orientation (in place; angles in degrees, clockwise)              */
/* ------------------------------------------------------------------------ */

QVN_API int32_t QVN_FaceFrameDataArr_Result_Rotate(QVN_FaceFrameDataArr* arr, int angle);
QVN_API int32_t QVN_FaceFrameDataArr_Result_Mirror(QVN_FaceFrameDataArr* arr);
QVN_API int32_t QVN_FaceFrameDataArr_Result_FlipV(QVN_FaceFrameDataArr* arr);

QVN_API int32_t QVN_ObjCountDataArr_Result_Rotate(QVN_ObjCountDataArr* arr, int angle);
QVN_API int32_t QVN_ObjCountDataArr_Result_Mirror(QVN_ObjCountDataArr* arr);
QVN_API int32_t QVN_ObjCountDataArr_Result_FlipV(QVN_ObjCountDataArr* arr);

QVN_API int32_t QVN_BodyFrameDataArr_Result_Rotate(QVN_BodyFrameDataArr* arr, int angle);
QVN_API int32_t QVN_BodyFrameDataArr_Result_Mirror(QVN_BodyFrameDataArr* arr);
QVN_API int32_t QVN_BodyFrameDataArr_Result_FlipV(QVN_BodyFrameDataArr* arr);

QVN_API int32_t QVN_GestureFrameDataArr_Result_Rotate(QVN_GestureFrameDataArr* arr, int angle);
QVN_API int32_t QVN_GestureFrameDataArr_Result_Mirror(QVN_GestureFrameDataArr* arr);
QVN_API int32_t QVN_GestureFrameDataArr_Result_FlipV(QVN_GestureFrameDataArr* arr);

QVN_API int32_t QVN_Rect2D_Result_Rotate(QVN_Rect2D* rect, int angle);
QVN_API int32_t QVN_Rect2D_Result_Mirror(QVN_Rect2D* rect);
QVN_API int32_t QVN_Rect2D_Result_FlipV(QVN_Rect2D* rect);

/* ------------------------------------------------------------------------ */
/* CPU image orientation (into a second, caller-allocated image)            */
/* ------------------------------------------------------------------------ */

QVN_API int32_t QVN_Clockwise_Rotate_Image_CPU(const QVN_Image* src, QVN_Image* dst, int angle);
QVN_API int32_t QVN_Mirror_Image_CPU(const QVN_Image* src, QVN_Image* dst);
QVN_API int32_t QVN_FlipV_Image_CPU(const QVN_Image* src, QVN_Image* dst);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* ------------------------------------------------------------------------ */
/* Layout checks                                                            */
/* ------------------------------------------------------------------------ */

#ifdef __cplusplus
#define QVN_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QVN_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

QVN_STATIC_ASSERT(sizeof(QVN_PIX_FMT) == 4, "QVN_PIX_FMT is a 32-bit word");
QVN_STATIC_ASSERT(sizeof(QVN_ORIENT_FMT) == 4, "QVN_ORIENT_FMT is a 32-bit word");
QVN_STATIC_ASSERT(sizeof(QVN_Rect2D) == 16, "QVN_Rect2D is 16 bytes");
QVN_STATIC_ASSERT(sizeof(QVN_Image) == 48, "QVN_Image is 48 bytes");
QVN_STATIC_ASSERT(offsetof(QVN_Image, ori_fmt) == 0, "QVN_Image.ori_fmt at 0");
QVN_STATIC_ASSERT(offsetof(QVN_Image, pix_fmt) == 4, "QVN_Image.pix_fmt at 4");
QVN_STATIC_ASSERT(offsetof(QVN_Image, mode_fmt) == 8, "QVN_Image.mode_fmt at 8");
QVN_STATIC_ASSERT(offsetof(QVN_Image, width) == 12, "QVN_Image.width at 12");
QVN_STATIC_ASSERT(offsetof(QVN_Image, height) == 16, "QVN_Image.height at 16");
QVN_STATIC_ASSERT(offsetof(QVN_Image, channels) == 20, "QVN_Image.channels at 20");
QVN_STATIC_ASSERT(offsetof(QVN_Image, rect) == 24, "QVN_Image.rect at 24");
QVN_STATIC_ASSERT(offsetof(QVN_Image, data) == 40, "QVN_Image.data at 40");
QVN_STATIC_ASSERT(sizeof(QVN_Face) == 3408, "QVN_Face is 852 words");
QVN_STATIC_ASSERT(offsetof(QVN_Face, rect) == 4 * 1, "QVN_Face.rect at word 1");
QVN_STATIC_ASSERT(offsetof(QVN_Face, landmarksNum) == 4 * 7, "QVN_Face.landmarksNum at word 7");
QVN_STATIC_ASSERT(offsetof(QVN_Face, landmarks) == 4 * 8, "QVN_Face.landmarks at word 8");
QVN_STATIC_ASSERT(offsetof(QVN_Face, landmarkScores) == 4 * 564, "QVN_Face.landmarkScores at word 564");
QVN_STATIC_ASSERT(offsetof(QVN_Face, sidePair) == 4 * 844, "QVN_Face.sidePair at word 844");
QVN_STATIC_ASSERT(sizeof(QVN_Body) == 304, "QVN_Body is 76 words");
QVN_STATIC_ASSERT(offsetof(QVN_Body, rect) == 4 * 1, "QVN_Body.rect at word 1");
QVN_STATIC_ASSERT(offsetof(QVN_Body, landmarksNum) == 4 * 5, "QVN_Body.landmarksNum at word 5");
QVN_STATIC_ASSERT(offsetof(QVN_Body, landmarks) == 4 * 6, "QVN_Body.landmarks at word 6");
QVN_STATIC_ASSERT(sizeof(QVN_Gesture) == 24, "QVN_Gesture is 6 words");
QVN_STATIC_ASSERT(offsetof(QVN_Gesture, rect) == 4 * 1, "QVN_Gesture.rect at word 1");
QVN_STATIC_ASSERT(offsetof(QVN_FaceFrameDataArr, faces) == 4, "faces at byte 4");
QVN_STATIC_ASSERT(offsetof(QVN_BodyFrameDataArr, bodies) == 4, "bodies at byte 4");
QVN_STATIC_ASSERT(offsetof(QVN_GestureFrameDataArr, gestures) == 4, "gestures at byte 4");
QVN_STATIC_ASSERT(sizeof(QVN_ObjCountDataArr) == 16, "QVN_ObjCountDataArr is 16 bytes");
QVN_STATIC_ASSERT(offsetof(QVN_ObjCountDataArr, objRectArr) == 8, "objRectArr at byte 8");

#endif /* QVN_KIT_H */
