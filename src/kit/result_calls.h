// result_calls.h - what the flat result calls (QVN_*_Result_Rotate, _Mirror,
// _FlipV) share: the refusal of a missing record and of an angle, with each
// family's own status and message. Detectors compare these codes and texts,
// so they are kept as they are.
#ifndef QVN_KIT_SRC_RESULT_CALLS_H
#define QVN_KIT_SRC_RESULT_CALLS_H

#include <qvn_kit/qvn_kit.h>

#include <quvas/utility/log.h>

#include "result_transforms.h"

namespace quvas {
namespace kit {
namespace internal {

// Every wrapper refuses a missing record the same way.
template <typename Record>
bool MissingRecord(const Record* record) {
    if (record != nullptr) return false;
    utility::Log(QVN_LOG_LEVEL_ERROR, "data is NULL.");
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
// Gestures and rectangles refuse 360 and answer QVN_RESULT_FAIL.
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
            utility::Log(QVN_LOG_LEVEL_ERROR, "%s", refusal);
            return QVN_RESULT_UNSUPPORTED;
    }
}

// Gestures and rectangles: 0, 90, 180, 270 only.
inline bool GestureOrRectAngle(int angle) {
    return angle == 0 || angle == 90 || angle == 180 || angle == 270;
}

inline void RectTurn(QVN_Rect2D* rect, int angle) {
    if (angle == 90) RectRotate90(rect);
    if (angle == 180) RectRotate180(rect);
    if (angle == 270) RectRotate270(rect);
}

inline void GesturesTurn(QVN_GestureFrameDataArr* arr, int angle) {
    if (angle == 90) MapGestures<RectRotate90>(arr);
    if (angle == 180) MapGestures<RectRotate180>(arr);
    if (angle == 270) MapGestures<RectRotate270>(arr);
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_RESULT_CALLS_H
