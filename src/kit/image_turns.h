// image_turns.h - turning, mirroring and flipping the pixels of a packed
// image into a second one, its region of interest carried along. The
// exported QVN_*_Image_CPU calls of qv_kit.cpp are these.
#ifndef QVN_KIT_SRC_IMAGE_TURNS_H
#define QVN_KIT_SRC_IMAGE_TURNS_H

#include <qvn_kit/qvn_kit.h>

namespace quvas {
namespace kit {
namespace internal {

int32_t TurnImage(const QVN_Image* src, QVN_Image* dst, int angle);
int32_t MirrorImage(const QVN_Image* src, QVN_Image* dst);
int32_t FlipImageV(const QVN_Image* src, QVN_Image* dst);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_IMAGE_TURNS_H
