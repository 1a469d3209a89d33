// result_transforms.cpp - the face mirror, the one result transform that
// reorders landmarks, with its table of left/right counterparts.
#include "result_transforms.h"

#include <iterator>
#include <vector>

namespace quvas {
namespace kit {
namespace internal {

namespace {

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

}  // namespace

void MirrorFaces(QVN_FaceFrameDataArr* arr) {
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
        // All 132 pairs are exchanged whatever landmarksNum says, so slots
        // beyond the valid count move too.
        for (size_t k = 0; k < pair_count; ++k) {
            const int a = pairs[2 * k];
            const int b = pairs[2 * k + 1];
            std::swap(face.landmarks[a], face.landmarks[b]);
            std::swap(face.landmarkScores[a], face.landmarkScores[b]);
        }
        std::swap(face.sidePair[0], face.sidePair[1]);
    }
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
