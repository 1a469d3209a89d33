// fuzz_warp.cpp - both inverse-affine warps (scalar and vectorised) with
// random formats, sizes and finite matrices on buffers of exactly the size
// each image needs. The identity matrix on equal sizes must give back every
// pixel of every plane except the last column and row (their 2x2
// neighbourhood leaves the source, so they are border); supported formats
// must not be refused.
#include "fuzz_common.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <cstring>

namespace {

size_t Bytes(uint32_t fmt, size_t w, size_t h) {
    switch (fmt) {
        case QVN_PIX_FMT_GRAY8: return w * h;
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888: return w * h * 3;
        case QVN_PIX_FMT_RGBA8888:
        case QVN_PIX_FMT_BGRA8888: return w * h * 4;
        case QVN_PIX_FMT_YUV420_A: return w * h + 2 * (w / 2) * (h / 2);
        default: return w * h + 2 * (w / 2) * (h / 2);  // two-plane
    }
}

struct Plane {
    size_t offset, w, h, n;  // bytes from the start, size, bytes a pixel
};

std::vector<Plane> Planes(uint32_t fmt, size_t w, size_t h) {
    switch (fmt) {
        case QVN_PIX_FMT_GRAY8: return {{0, w, h, 1}};
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888: return {{0, w, h, 3}};
        case QVN_PIX_FMT_RGBA8888:
        case QVN_PIX_FMT_BGRA8888: return {{0, w, h, 4}};
        case QVN_PIX_FMT_YUV420_A:
            return {{0, w, h, 1}, {w * h, w / 2, h / 2, 1}, {w * h + (w / 2) * (h / 2), w / 2, h / 2, 1}};
        default: return {{0, w, h, 1}, {w * h, w / 2, h / 2, 2}};
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvnfuzz::Input in(data, size);
    qvnfuzz::StartCall();
    const std::vector<uint32_t> formats = {
        QVN_PIX_FMT_GRAY8,      QVN_PIX_FMT_RGB888,     QVN_PIX_FMT_BGR888,
        QVN_PIX_FMT_RGBA8888,   QVN_PIX_FMT_BGRA8888,   QVN_PIX_FMT_YUV420SP_C,
        QVN_PIX_FMT_YUV420SP_D, QVN_PIX_FMT_YUV420_A};
    const uint32_t fmt = in.Pick(formats);
    const bool yuv = fmt == QVN_PIX_FMT_YUV420SP_C || fmt == QVN_PIX_FMT_YUV420SP_D ||
                     fmt == QVN_PIX_FMT_YUV420_A;
    // 4:2:0 images have even sides; the warps work plane by plane.
    int sw = in.Range(1, 48), sh = in.Range(1, 48);
    int dw = in.Range(1, 48), dh = in.Range(1, 48);
    const bool identity = in.U8() < 32;
    if (identity) dw = sw, dh = sh;
    if (yuv) sw += sw & 1, sh += sh & 1, dw += dw & 1, dh += dh & 1;
    const bool vector = in.Bit();
    const unsigned border = in.U32();
    float m[6] = {1, 0, 0, 0, 1, 0};
    if (!identity) {
        const int style = in.Range(0, 2);
        for (float& v : m) {
            // Any finite float, or the small values real matrices have.
            v = style == 0 ? in.Finite() : static_cast<float>(in.Range(-4000, 4000)) / 100.f;
        }
    }
    std::vector<uint8_t> src = in.Bytes(Bytes(fmt, static_cast<size_t>(sw), static_cast<size_t>(sh)));
    std::vector<uint8_t> dst(Bytes(fmt, static_cast<size_t>(dw), static_cast<size_t>(dh)), 0xA5);
    QVN_Image s{}, d{};
    s.pix_fmt = d.pix_fmt = fmt;
    s.width = sw, s.height = sh, d.width = dw, d.height = dh;
    s.channels = d.channels = 1;
    s.data = src.data();
    d.data = dst.data();
    float mcopy[6];
    std::memcpy(mcopy, m, sizeof m);
    if (vector) {
        quvas::kit::AffineInvQvimageBilinearSSE(&s, &d, border, m);
    } else {
        quvas::kit::affine_inv_qvimage_bilinear(&s, &d, static_cast<unsigned char>(border), m);
    }
    qvnfuzz::ExpectQuiet(vector ? "AffineInvQvimageBilinearSSE" : "affine_inv_qvimage_bilinear");
    if (std::memcmp(mcopy, m, sizeof m) != 0) qvnfuzz::Fail("the warp changed its matrix");
    if (identity) {
        for (const Plane& p : Planes(fmt, static_cast<size_t>(sw), static_cast<size_t>(sh))) {
            for (size_t y = 0; y + 1 < p.h; ++y) {
                const size_t at = p.offset + y * p.w * p.n, len = (p.w - 1) * p.n;
                if (std::memcmp(src.data() + at, dst.data() + at, len) != 0) {
                    std::fprintf(stderr, "format %u, %dx%d, %s warp, row %zu\n", fmt, sw, sh,
                                 vector ? "vector" : "scalar", y);
                    qvnfuzz::Fail("the identity warp changed a pixel");
                }
            }
        }
    }
    return 0;
}
