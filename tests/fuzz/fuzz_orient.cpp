// fuzz_orient.cpp - CPU image orientation with random formats, sizes and
// angles on buffers of exactly W x H x N bytes: supported angles succeed
// quietly, four quarter turns and two mirrors or flips give the image back,
// and any other angle is refused with -4 leaving the output untouched.
#include "fuzz_common.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvnfuzz::Input in(data, size);
    qvnfuzz::StartCall();
    const std::vector<std::pair<uint32_t, int>> formats = {
        {QVN_PIX_FMT_GRAY8, 1}, {QVN_PIX_FMT_RGB888, 3}, {QVN_PIX_FMT_BGR888, 3},
        {QVN_PIX_FMT_RGBA8888, 4}, {QVN_PIX_FMT_BGRA8888, 4}};
    const auto [fmt, n] = in.Pick(formats);
    const int w = in.Range(1, 64), h = in.Range(1, 64);
    const int op = in.Range(0, 3);  // rotate, mirror, flip, odd angle
    const int angle = op == 3 ? in.Range(-400, 400) : 90 * in.Range(0, 3);
    const size_t bytes = static_cast<size_t>(w) * h * n;
    std::vector<uint8_t> a = in.Bytes(bytes), b(bytes, 0x5A), c(bytes);
    QVN_Image src{};
    src.pix_fmt = fmt;
    src.width = w;
    src.height = h;
    src.channels = n;
    src.rect = QVN_Rect2D{0.1f, 0.2f, 0.6f, 0.9f};
    src.data = a.data();
    QVN_Image mid = src, back = src;
    mid.data = b.data();
    back.data = c.data();
    if (op == 3) {
        const bool supported = angle == 0 || angle == 90 || angle == 180 || angle == 270;
        int32_t s = QVN_Clockwise_Rotate_Image_CPU(&src, &mid, angle);
        if (supported) {
            if (s != 0) qvnfuzz::Fail("a supported angle was refused");
            qvnfuzz::ExpectQuiet("QVN_Clockwise_Rotate_Image_CPU");
        } else if (s != -4 || b != std::vector<uint8_t>(bytes, 0x5A)) {
            qvnfuzz::Fail("an unsupported angle was not refused cleanly");
        }
        return 0;
    }
    if (op == 0) {
        // Four quarter turns by `angle` (or by 90 when it is 0) are whole
        // turns.
        const int step = angle == 0 ? 90 : angle;
        QVN_Image cur = src;
        std::vector<uint8_t> buf[2] = {std::vector<uint8_t>(bytes), std::vector<uint8_t>(bytes)};
        for (int k = 0; k < (step == 180 ? 2 : 4); ++k) {
            QVN_Image next = cur;
            next.data = buf[k & 1].data();
            if (QVN_Clockwise_Rotate_Image_CPU(&cur, &next, step) != 0) qvnfuzz::Fail("rotate refused");
            cur = next;
        }
        qvnfuzz::ExpectQuiet("QVN_Clockwise_Rotate_Image_CPU");
        if (cur.width != w || cur.height != h ||
            std::vector<uint8_t>(cur.data, cur.data + bytes) != a) {
            qvnfuzz::Fail("whole turns did not give the image back");
        }
        return 0;
    }
    auto once = op == 1 ? QVN_Mirror_Image_CPU : QVN_FlipV_Image_CPU;
    if (once(&src, &mid) != 0 || once(&mid, &back) != 0) qvnfuzz::Fail("mirror or flip refused");
    qvnfuzz::ExpectQuiet(op == 1 ? "QVN_Mirror_Image_CPU" : "QVN_FlipV_Image_CPU");
    if (c != a) qvnfuzz::Fail("two mirrors or flips did not give the image back");
    return 0;
}
