// validators.h - the checks detectors run on caller input before they work
// (images, image arrays, object-count records, model file lists). The
// exported validators of qv_kit.cpp are these; each failure is one log line.
#ifndef QVN_KIT_SRC_VALIDATORS_H
#define QVN_KIT_SRC_VALIDATORS_H

#include <qvn_kit/qvn_kit.h>

namespace quvas {
namespace kit {
namespace internal {

bool ValidImageForCpu(const QVN_Image* img, bool forInput);
bool ValidImageArrForCpu(const QVN_ImageArr* arr);
bool ValidObjCountDataArr(const QVN_ObjCountDataArr* arr);
bool ValidFilePathArr(int count, const void** paths);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_VALIDATORS_H
