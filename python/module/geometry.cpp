// geometry.cpp - orientation matrices, crop and box geometry, and the
// re-orientation of results: (N, 4) boxes and (N, 2) points, normalised.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

namespace qvnpy {
namespace {

py::array AffineMatrix(py::handle orient, int width, int height, bool inverse) {
    LogFlush flush;
    // The matrices switch on the whole word, so any 32-bit value is accepted.
    const bool integer = !py::isinstance<py::str>(orient) && !PyBool_Check(orient.ptr()) &&
                         !py::isinstance<py::array>(orient) && PyIndex_Check(orient.ptr());
    const unsigned ori = integer
                             ? static_cast<unsigned>(ParseWord(orient, "orient", 0, 0xffffffffLL))
                             : ParseOrient(orient, "orient");
    std::vector<float> m(6, 0.f);
    if (inverse) {
        quvas::kit::getAffineTransformInv(ori, width, height, m);  // empties m, writes its storage
    } else {
        quvas::kit::getAffineTransform(ori, width, height, m);
    }
    py::array_t<float> out = NewArray<float>({2, 3});
    std::memcpy(out.mutable_data(), m.data(), 6 * sizeof(float));
    return std::move(out);
}

py::tuple RectifyBox(py::handle orient, py::handle box) {
    uint32_t ori = ParseOrient(orient, "orient");
    std::vector<float> b = Numbers<float>(box, "box", 4);
    quvas::kit::Cropbox_Rectify(static_cast<QVN_ORIENT_FMT>(ori), b[0], b[1], b[2], b[3]);
    return py::make_tuple(b[0], b[1], b[2], b[3]);
}

py::tuple RectifyCrop(py::handle orient, py::handle frame_size, py::handle box, bool normalized) {
    LogFlush flush;
    uint32_t ori = ParseOrient(orient, "orient");
    std::vector<long> s = Numbers<long>(frame_size, "frame_size", 2);
    std::vector<float> b = Numbers<float>(box, "box", 4);
    QVN_Image img{};
    img.ori_fmt = ori;
    img.height = CheckedInt(s[0], "frame_size height", 1, kMaxSide);
    img.width = CheckedInt(s[1], "frame_size width", 1, kMaxSide);
    quvas::kit::Cropbox_Rectify(&img, normalized, b[0], b[1], b[2], b[3]);
    return py::make_tuple(b[0], b[1], b[2], b[3]);
}

py::array CropResizeInverse(py::handle crop, py::handle size) {
    std::vector<float> c = Numbers<float>(crop, "crop", 4);
    std::vector<float> s = Numbers<float>(size, "size", 2);
    py::array_t<float> out = NewArray<float>({3, 3});
    // size is (H, W) like every size of this module; the kit takes W, H.
    quvas::kit::cal_crop_resize_inv_float_param(c[0], c[1], c[2], c[3], s[1], s[0],
                                                out.mutable_data());
    return std::move(out);
}

py::tuple RectTuple(const QVN_Rect2D& r) { return py::make_tuple(r.x0, r.y0, r.x1, r.y1); }

QVN_Rect2D RectArg(py::handle box) {
    std::vector<float> b = Numbers<float>(box, "box", 4);
    return QVN_Rect2D{b[0], b[1], b[2], b[3]};
}

py::tuple AdjustBox(py::handle box, float top, float bottom, float left, float right,
                    float scale_x, float scale_y) {
    const QVN_Rect2D r = RectArg(box);
    Finite(top, "top");
    Finite(bottom, "bottom");
    Finite(left, "left");
    Finite(right, "right");
    Finite(scale_x, "scale_x");
    Finite(scale_y, "scale_y");
    // The kit snaps the padded edges to whole units through a 32-bit integer
    // conversion, which turns anything outside its range into -2**31.
    const float h = r.y1 - r.y0, w = r.x1 - r.x0;
    for (float edge : {std::fmaf(top, h, r.y0), std::fmaf(bottom, h, r.y1),
                       std::fmaf(left, w, r.x0), std::fmaf(right, w, r.x1)}) {
        if (!(std::fabs(edge) < 2147483648.f)) {
            throw py::value_error("the padded box reaches beyond +-2**31, where its edges "
                                  "cannot be snapped to whole units");
        }
    }
    return RectTuple(quvas::kit::adjust_bbox(r, top, bottom, left, right, scale_x, scale_y));
}

enum class Turn { kRotate, kMirror, kFlipV };

int CheckAngle(int angle) {
    if (angle != 0 && angle != 90 && angle != 180 && angle != 270 && angle != 360) {
        throw py::value_error("angle must be 0, 90, 180, 270 or 360, not " +
                              std::to_string(angle));
    }
    return angle;
}

CArray<float> RowsArg(py::handle obj, const char* name, int cols) {
    py::array a = CheckedArray<float>(obj, name);
    if (a.ndim() != 2 || a.shape(1) != cols) {
        throw py::value_error(std::string(name) + " must have shape (N, " + std::to_string(cols) +
                              "), not " + ShapeText(a));
    }
    if (a.shape(0) > (1L << 30)) throw py::value_error(std::string(name) + " has too many rows");
    return Contiguous<float>(a);
}

py::array TurnBoxes(py::handle boxes, Turn turn, int angle) {
    LogFlush flush;
    auto in = RowsArg(boxes, "boxes", 4);
    if (turn == Turn::kRotate) CheckAngle(angle);
    py::array_t<float> out = NewArray<float>({in.shape(0), 4});
    std::memcpy(out.mutable_data(), in.data(), static_cast<size_t>(in.size()) * sizeof(float));
    QVN_ObjCountDataArr arr{};
    arr.count = static_cast<int32_t>(in.shape(0));
    arr.objRectArr = reinterpret_cast<QVN_Rect2D*>(out.mutable_data());
    {
        py::gil_scoped_release release;
        if (turn == Turn::kRotate) QVN_ObjCountDataArr_Result_Rotate(&arr, angle);
        if (turn == Turn::kMirror) QVN_ObjCountDataArr_Result_Mirror(&arr);
        if (turn == Turn::kFlipV) QVN_ObjCountDataArr_Result_FlipV(&arr);
    }
    arr.objRectArr = nullptr;  // the array is NumPy's, not the record's
    return std::move(out);
}

py::array TurnPoints(py::handle points, Turn turn, int angle) {
    LogFlush flush;
    auto in = RowsArg(points, "points", 2);
    if (turn == Turn::kRotate) CheckAngle(angle);
    const size_t n = static_cast<size_t>(in.shape(0));
    py::array_t<float> out = NewArray<float>({in.shape(0), 2});
    const float* src = in.data();
    float* dst = out.mutable_data();
    {
        py::gil_scoped_release release;
        // Points travel as the key points of body records, 35 a body.
        auto arr = std::make_unique<QVN_BodyFrameDataArr>();
        const size_t per_record = QVN_BODY_LANDMARK_NUM * QVN_MAX_BODY_NUM;
        for (size_t start = 0; start < n; start += per_record) {
            const size_t count = std::min(per_record, n - start);
            std::memset(arr.get(), 0, sizeof(QVN_BodyFrameDataArr));
            arr->count = static_cast<uint32_t>((count + QVN_BODY_LANDMARK_NUM - 1) /
                                               QVN_BODY_LANDMARK_NUM);
            for (size_t i = 0; i < count; ++i) {
                QVN_Body& body = arr->bodies[i / QVN_BODY_LANDMARK_NUM];
                body.landmarks[i % QVN_BODY_LANDMARK_NUM] =
                    QVN_Point2D{src[2 * (start + i)], src[2 * (start + i) + 1]};
                body.landmarksNum = static_cast<uint32_t>(i % QVN_BODY_LANDMARK_NUM + 1);
            }
            if (turn == Turn::kRotate) QVN_BodyFrameDataArr_Result_Rotate(arr.get(), angle);
            if (turn == Turn::kMirror) QVN_BodyFrameDataArr_Result_Mirror(arr.get());
            if (turn == Turn::kFlipV) QVN_BodyFrameDataArr_Result_FlipV(arr.get());
            for (size_t i = 0; i < count; ++i) {
                const QVN_Point2D& p =
                    arr->bodies[i / QVN_BODY_LANDMARK_NUM].landmarks[i % QVN_BODY_LANDMARK_NUM];
                dst[2 * (start + i)] = p.x;
                dst[2 * (start + i) + 1] = p.y;
            }
        }
    }
    return std::move(out);
}

}  // namespace

void RegisterGeometry(py::module_& m) {
    m.def("affine_matrix", &AffineMatrix, py::arg("orient"), py::arg("width"),
          py::arg("height"), py::arg("inverse") = false,
          "The 2x3 float32 matrix of an orientation value for a frame of width x height\n"
          "(getAffineTransform / getAffineTransformInv).");
    m.def("rectify_box", &RectifyBox, py::arg("orient"), py::arg("box"),
          "A normalised box (x0, y0, x1, y1) of the frame's view mapped to the upright view\n"
          "for orientation flags `orient` (Cropbox_Rectify by orientation).");
    m.def("rectify_crop", &RectifyCrop, py::arg("orient"), py::arg("frame_size"),
          py::arg("box"), py::arg("normalized") = false,
          "The bounding box of (x0, y0, x1, y1) turned by the matrix of `orient` for a frame\n"
          "of frame_size (H, W): what the converters do with a crop (Cropbox_Rectify).");
    m.def("crop_resize_inverse", &CropResizeInverse, py::arg("crop"), py::arg("size"),
          "3x3 float32 matrix taking a pixel of a crop (x, y, w, h) resized to size (H, W)\n"
          "back to the frame.");
    m.def(
        "extend_box",
        [](py::handle box, float scale) {
            const QVN_Rect2D r = RectArg(box);
            return RectTuple(quvas::kit::extend_bbox(r, Finite(scale, "scale")));
        },
        py::arg("box"), py::arg("scale"),
        "The square of side max(w, h) * scale about the centre of box (x0, y0, x1, y1).");
    m.def("adjust_box", &AdjustBox, py::arg("box"), py::arg("top"), py::arg("bottom"),
          py::arg("left"), py::arg("right"), py::arg("scale_x"), py::arg("scale_y"),
          "Pad box (x0, y0, x1, y1) by fractions of its size, snap to whole units and scale\n"
          "the square about its centre (adjust_bbox). Every number must be finite and the\n"
          "padded edges within +-2**31.");

    m.def(
        "rotate_boxes", [](py::handle b, int angle) { return TurnBoxes(b, Turn::kRotate, angle); },
        py::arg("boxes"), py::arg("angle"),
        "float32 (N, 4) normalised boxes (x0, y0, x1, y1) turned clockwise by 0/90/180/270/360.");
    m.def(
        "mirror_boxes", [](py::handle b) { return TurnBoxes(b, Turn::kMirror, 0); },
        py::arg("boxes"), "float32 (N, 4) normalised boxes mirrored left to right.");
    m.def(
        "flip_v_boxes", [](py::handle b) { return TurnBoxes(b, Turn::kFlipV, 0); },
        py::arg("boxes"), "float32 (N, 4) normalised boxes flipped top to bottom.");
    m.def(
        "rotate_points",
        [](py::handle p, int angle) { return TurnPoints(p, Turn::kRotate, angle); },
        py::arg("points"), py::arg("angle"),
        "float32 (N, 2) normalised points turned clockwise by 0/90/180/270/360.");
    m.def(
        "mirror_points", [](py::handle p) { return TurnPoints(p, Turn::kMirror, 0); },
        py::arg("points"), "float32 (N, 2) normalised points mirrored left to right.");
    m.def(
        "flip_v_points", [](py::handle p) { return TurnPoints(p, Turn::kFlipV, 0); },
        py::arg("points"), "float32 (N, 2) normalised points flipped top to bottom.");
}

}  // namespace qvnpy
