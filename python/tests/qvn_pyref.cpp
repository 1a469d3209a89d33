// qvn_pyref.cpp - expected bytes for the Python module's tests, computed by
// calling libqvn_kit directly on raw little-endian files.
//
//   qvn_pyref mask    IN.f32 SIGMOID(0|1) OUT.u8
//   qvn_pyref softmax IN.f32 OUT.f32
//   qvn_pyref rotate  IN.u8 W H C ANGLE OUT.u8     (also: mirror, flipv without ANGLE)
//   qvn_pyref warp    IN.u8 W H C OW OH BORDER VECTOR(0|1) M0 M1 M2 M3 M4 M5 OUT.u8
//   qvn_pyref boxes   IN.f32 rotate|mirror|flipv ANGLE OUT.f32   (N x 4)
//   qvn_pyref points  IN.f32 rotate|mirror|flipv ANGLE OUT.f32   (N x 2)
//
// Where the kit has a whole-image entry point (the image-record warps, the
// gesture transforms) this helper goes through it, a different road from
// the module's, so a mistake in how either lays out the data shows.
#include <qvn_kit/qvn_kit.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

std::vector<char> ReadAll(const char* path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "qvn_pyref: cannot read %s\n", path);
        std::exit(2);
    }
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(const char* path, const void* data, size_t size) {
    std::ofstream out(path, std::ios::binary);
    out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
        std::fprintf(stderr, "qvn_pyref: cannot write %s\n", path);
        std::exit(2);
    }
}

template <typename T>
std::vector<T> ReadValues(const char* path) {
    std::vector<char> bytes = ReadAll(path);
    std::vector<T> v(bytes.size() / sizeof(T));
    std::memcpy(v.data(), bytes.data(), v.size() * sizeof(T));
    return v;
}

int Usage() {
    std::fprintf(stderr, "qvn_pyref: bad arguments\n");
    return 2;
}

int Mask(int argc, char** argv) {
    if (argc != 5) return Usage();
    std::vector<char> bytes = ReadAll(argv[2]);
    const int n = static_cast<int>(bytes.size() / sizeof(float));
    // Room for n rounded up to 16, as the kernels need.
    std::vector<float> src(static_cast<size_t>(n) + 16, 0.f);
    std::memcpy(src.data(), bytes.data(), static_cast<size_t>(n) * sizeof(float));
    std::vector<unsigned char> dst(static_cast<size_t>(n) + 16, 0);
    if (std::atoi(argv[3]) != 0) {
        quvas::kit::sigmoid_float01toUchar0255SSE(src.data(), dst.data(), n);
    } else {
        quvas::kit::float01toUchar0255SSE(src.data(), dst.data(), n);
    }
    WriteAll(argv[4], dst.data(), static_cast<size_t>(n));
    return 0;
}

int Softmax(int argc, char** argv) {
    if (argc != 4) return Usage();
    std::vector<char> bytes = ReadAll(argv[2]);
    const int n = static_cast<int>(bytes.size() / sizeof(float));
    std::vector<float> v(static_cast<size_t>(n) + 1);
    std::memcpy(v.data(), bytes.data(), static_cast<size_t>(n) * sizeof(float));
    quvas::kit::softmax_float(v.data(), v.data(), n);  // in place is allowed
    WriteAll(argv[3], v.data(), static_cast<size_t>(n) * sizeof(float));
    return 0;
}

int Orient(int argc, char** argv) {
    const std::string op = argv[1];
    if (argc != (op == "rotate" ? 8 : 7)) return Usage();
    std::vector<char> bytes = ReadAll(argv[2]);
    QVN_Image src{};
    src.width = std::atoi(argv[3]);
    src.height = std::atoi(argv[4]);
    src.channels = std::atoi(argv[5]);
    src.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    src.data = reinterpret_cast<uint8_t*>(bytes.data());
    std::vector<uint8_t> out(bytes.size());
    QVN_Image dst = src;
    dst.data = out.data();
    int rc = 0;
    if (op == "rotate") rc = QVN_Clockwise_Rotate_Image_CPU(&src, &dst, std::atoi(argv[6]));
    if (op == "mirror") rc = QVN_Mirror_Image_CPU(&src, &dst);
    if (op == "flipv") rc = QVN_FlipV_Image_CPU(&src, &dst);
    if (rc != 0) return 3;
    WriteAll(argv[argc - 1], out.data(), out.size());
    return 0;
}

int Warp(int argc, char** argv) {
    if (argc != 17) return Usage();
    std::vector<char> bytes = ReadAll(argv[2]);
    const int w = std::atoi(argv[3]), h = std::atoi(argv[4]), c = std::atoi(argv[5]);
    const int ow = std::atoi(argv[6]), oh = std::atoi(argv[7]);
    const unsigned border = static_cast<unsigned>(std::atoi(argv[8]));
    const bool vector = std::atoi(argv[9]) != 0;
    float m[6];
    for (int i = 0; i < 6; ++i) m[i] = std::strtof(argv[10 + i], nullptr);
    std::vector<uint8_t> out(static_cast<size_t>(ow) * oh * c, 0);
    const uint8_t* src = reinterpret_cast<const uint8_t*>(bytes.data());
    if (c == 2) {
        // No image format has two packed bytes a pixel: call the kernels.
        if (vector) {
            quvas::kit::warpaffine_linear_SSE_C2(h, w, 2 * w, 2, oh, ow, 2 * ow, out.data(), src,
                                                 m, border * 0x0101u);
        } else {
            quvas::kit::affine_inv_image_bilinear_c2(src, w, h, out.data(), ow, oh,
                                                     static_cast<unsigned char>(border), m);
        }
    } else {
        QVN_Image si{}, di{};
        si.pix_fmt = c == 1 ? QVN_PIX_FMT_GRAY8 : c == 3 ? QVN_PIX_FMT_RGB888 : QVN_PIX_FMT_RGBA8888;
        si.width = w;
        si.height = h;
        si.channels = c;
        si.data = const_cast<uint8_t*>(src);
        di = si;
        di.width = ow;
        di.height = oh;
        di.data = out.data();
        if (vector) {
            quvas::kit::AffineInvQvimageBilinearSSE(&si, &di, border * 0x01010101u, m);
        } else {
            quvas::kit::affine_inv_qvimage_bilinear(&si, &di, static_cast<unsigned char>(border),
                                                    m);
        }
    }
    WriteAll(argv[16], out.data(), out.size());
    return 0;
}

int Boxes(int argc, char** argv) {
    if (argc != 6) return Usage();
    std::vector<float> v = ReadValues<float>(argv[2]);
    const std::string op = argv[3];
    const int angle = std::atoi(argv[4]);
    // Gesture records carry one box each, 16 a record.
    auto arr = std::make_unique<QVN_GestureFrameDataArr>();
    const size_t n = v.size() / 4;
    for (size_t start = 0; start < n; start += QVN_MAX_GESTURE_NUM) {
        const size_t count = std::min<size_t>(QVN_MAX_GESTURE_NUM, n - start);
        std::memset(arr.get(), 0, sizeof(*arr));
        arr->count = static_cast<uint32_t>(count);
        for (size_t i = 0; i < count; ++i) std::memcpy(&arr->gestures[i].rect, &v[4 * (start + i)], 16);
        int rc = 0;
        if (op == "rotate") rc = QVN_GestureFrameDataArr_Result_Rotate(arr.get(), angle);
        if (op == "mirror") rc = QVN_GestureFrameDataArr_Result_Mirror(arr.get());
        if (op == "flipv") rc = QVN_GestureFrameDataArr_Result_FlipV(arr.get());
        if (rc != 0) return 3;
        for (size_t i = 0; i < count; ++i) std::memcpy(&v[4 * (start + i)], &arr->gestures[i].rect, 16);
    }
    WriteAll(argv[5], v.data(), v.size() * sizeof(float));
    return 0;
}

int Points(int argc, char** argv) {
    if (argc != 6) return Usage();
    std::vector<float> v = ReadValues<float>(argv[2]);
    const std::string op = argv[3];
    const int angle = std::atoi(argv[4]);
    // One body record per point keeps this road apart from the module's,
    // which packs 35 points a body.
    const size_t n = v.size() / 2;
    for (size_t i = 0; i < n; ++i) {
        auto arr = std::make_unique<QVN_BodyFrameDataArr>();
        std::memset(arr.get(), 0, sizeof(*arr));
        arr->count = 1;
        arr->bodies[0].landmarksNum = 1;
        arr->bodies[0].landmarks[0] = QVN_Point2D{v[2 * i], v[2 * i + 1]};
        int rc = 0;
        if (op == "rotate") rc = QVN_BodyFrameDataArr_Result_Rotate(arr.get(), angle);
        if (op == "mirror") rc = QVN_BodyFrameDataArr_Result_Mirror(arr.get());
        if (op == "flipv") rc = QVN_BodyFrameDataArr_Result_FlipV(arr.get());
        if (rc != 0) return 3;
        v[2 * i] = arr->bodies[0].landmarks[0].x;
        v[2 * i + 1] = arr->bodies[0].landmarks[0].y;
    }
    WriteAll(argv[5], v.data(), v.size() * sizeof(float));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return Usage();
    const std::string cmd = argv[1];
    if (cmd == "mask") return Mask(argc, argv);
    if (cmd == "softmax") return Softmax(argc, argv);
    if (cmd == "rotate" || cmd == "mirror" || cmd == "flipv") return Orient(argc, argv);
    if (cmd == "warp") return Warp(argc, argv);
    if (cmd == "boxes") return Boxes(argc, argv);
    if (cmd == "points") return Points(argc, argv);
    return Usage();
}
