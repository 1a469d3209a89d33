// rect_turns.h - the five moves of a normalised rectangle, written once for
// the result transforms and the image turns.
//
// Each takes the rectangle as it stands (by value, so the destination may be
// the rectangle itself) and writes the moved corners into `d`. A turn writes
// all four fields; the mirror writes only x0 and x1, the vertical flip only
// y0 and y1, and leaves the rest of `d` as it is. Every coordinate is
// normalised, so each move is an exchange and 1 - v in single precision:
//
//                 (x0, y0, x1, y1) becomes
//   clockwise 90   (1 - y1, x0, 1 - y0, x1)
//   clockwise 180  (1 - x1, 1 - y1, 1 - x0, 1 - y0)
//   clockwise 270  (y0, 1 - x1, y1, 1 - x0)
//   mirror         (1 - x1, y0, 1 - x0, y1)
//   vertical flip  (x0, 1 - y1, x1, 1 - y0)
#ifndef QVN_KIT_SRC_RECT_TURNS_H
#define QVN_KIT_SRC_RECT_TURNS_H

#include <qvn_kit/qvn_kit.h>

namespace quvas {
namespace kit {
namespace internal {

inline void RectRotate90(QVN_Rect2D s, QVN_Rect2D* d) {
    d->x0 = 1.0f - s.y1;
    d->y0 = s.x0;
    d->x1 = 1.0f - s.y0;
    d->y1 = s.x1;
}

inline void RectRotate180(QVN_Rect2D s, QVN_Rect2D* d) {
    d->x0 = 1.0f - s.x1;
    d->y0 = 1.0f - s.y1;
    d->x1 = 1.0f - s.x0;
    d->y1 = 1.0f - s.y0;
}

inline void RectRotate270(QVN_Rect2D s, QVN_Rect2D* d) {
    d->x0 = s.y0;
    d->y0 = 1.0f - s.x1;
    d->x1 = s.y1;
    d->y1 = 1.0f - s.x0;
}

inline void RectFlipH(QVN_Rect2D s, QVN_Rect2D* d) {
    d->x0 = 1.0f - s.x1;
    d->x1 = 1.0f - s.x0;
}

inline void RectFlipV(QVN_Rect2D s, QVN_Rect2D* d) {
    d->y0 = 1.0f - s.y1;
    d->y1 = 1.0f - s.y0;
}

// Unlike every other vertical flip, the new top is the old bottom as it
// stands, not mirrored: (x0, y0, x1, y1) -> (x0, y1, x1, 1 - y0). Callers of
// the single-rectangle flip have compensated for this for a long time, so it
// is kept; note that applying it twice does not give the rectangle back.
inline void RectFlipVKept(QVN_Rect2D* r) {
    const QVN_Rect2D s = *r;
    r->y0 = s.y1;
    r->y1 = 1.0f - s.y0;
}

// In place, the form the per-record transforms take as template arguments.
inline void RectRotate90(QVN_Rect2D* r) { RectRotate90(*r, r); }
inline void RectRotate180(QVN_Rect2D* r) { RectRotate180(*r, r); }
inline void RectRotate270(QVN_Rect2D* r) { RectRotate270(*r, r); }
inline void RectFlipH(QVN_Rect2D* r) { RectFlipH(*r, r); }
inline void RectFlipV(QVN_Rect2D* r) { RectFlipV(*r, r); }

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_RECT_TURNS_H
