// frames.cpp - file-format conversions between pictures, frames and tensors.
#include "frames.hpp"

#include "error.hpp"
#include "notice.hpp"
#include "parse.hpp"
#include "pixel_format.h"

#include <qvn_kit/qvn_kit.hpp>

#include <libyuv/convert.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <libyuv/convert_from_argb.h>

#include <algorithm>
#include <cstring>

namespace qvntool {

namespace pixfmt = quvas::kit::pixfmt;

void Frame::Bind(uint32_t pix_fmt, int width, int height, int channels, uint32_t ori) {
    image = QVN_Image{};
    image.ori_fmt = ori;
    image.pix_fmt = pix_fmt;
    image.width = width;
    image.height = height;
    image.channels = channels;
    image.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    image.data = bytes.data();
}

size_t FrameBytes(uint32_t pix_fmt, int width, int height) {
    if (width <= 0 || height <= 0 || !pixfmt::IsInputFrame(pix_fmt)) return 0;
    // The converters read (w / 2) x (h / 2) chroma pairs after the luma
    // plane; odd sides have no agreed layout.
    if (pixfmt::IsFourTwoZero(pix_fmt) && (width % 2 != 0 || height % 2 != 0)) return 0;
    const uint64_t want = pixfmt::ImageBytes(pix_fmt, width, height);
    QVN_Image probe{};
    probe.pix_fmt = pix_fmt;
    probe.width = width;
    probe.height = height;
    probe.channels = 4;
    uint32_t bytes = 0;
    // The kit's rule counts in 32 bits and wraps; trust it only where it
    // agrees with the count in 64 bits.
    if (QVN_Get_QVNImage_Bytes(&probe, &bytes) != 0 || bytes != want) return 0;
    return static_cast<size_t>(want);
}

namespace {

// Of the two four-byte colour formats, the one stored B,G,R,A.
bool IsBgra(uint32_t pix_fmt) { return pixfmt::Find(pix_fmt)->red_byte == 2; }

// libyuv's "ARGB" is B,G,R,A in memory.
std::vector<uint8_t> PictureToBgra(const Picture& pic) {
    std::vector<uint8_t> bgra(static_cast<size_t>(pic.width) * pic.height * 4);
    const int w = pic.width, h = pic.height;
    if (pic.channels == 1) {
        libyuv::J400ToARGB(pic.pixels.data(), w, bgra.data(), w * 4, w, h);
    } else if (pic.channels == 3) {
        libyuv::RAWToARGB(pic.pixels.data(), w * 3, bgra.data(), w * 4, w, h);
    } else {
        libyuv::ABGRToARGB(pic.pixels.data(), w * 4, bgra.data(), w * 4, w, h);
    }
    return bgra;
}

}  // namespace

void PictureToFrame(const Picture& pic, uint32_t pix_fmt, uint32_t ori, Frame& frame) {
    int w = pic.width, h = pic.height;
    std::vector<uint8_t> bgra = PictureToBgra(pic);
    if (pixfmt::IsFourByteColour(pix_fmt)) {
        frame.bytes.resize(bgra.size());
        if (IsBgra(pix_fmt)) {
            frame.bytes = bgra;
        } else {
            libyuv::ARGBToABGR(bgra.data(), w * 4, frame.bytes.data(), w * 4, w, h);
        }
        frame.Bind(pix_fmt, w, h, 4, ori);
        return;
    }
    // Pictures become camera frames only: libyuv interleaves 4:2:0 chroma
    // as nv12 or nv21, and the other two-plane formats carry other weights.
    if (pix_fmt != QVN_PIX_FMT_YUV420SP_C && pix_fmt != QVN_PIX_FMT_YUV420SP_D) {
        throw ToolError(std::string("a picture cannot be turned into format ") +
                            FrameFormatName(pix_fmt) + " (use nv12, nv21, bgra or rgba)",
                        kExitUsage);
    }
    if (w % 2 != 0 || h % 2 != 0) {
        // 4:2:0 frames keep one chroma pair per 2x2 block, so the kit needs
        // even sides. Repeat the last column and row rather than lose them.
        const int ew = w + (w & 1), eh = h + (h & 1);
        std::vector<uint8_t> even(static_cast<size_t>(ew) * eh * 4);
        for (int y = 0; y < eh; ++y) {
            const uint8_t* src = bgra.data() + static_cast<size_t>(std::min(y, h - 1)) * w * 4;
            uint8_t* dst = even.data() + static_cast<size_t>(y) * ew * 4;
            std::memcpy(dst, src, static_cast<size_t>(w) * 4);
            if (ew != w) std::memcpy(dst + static_cast<size_t>(w) * 4, src + (w - 1) * 4, 4);
        }
        Notice(std::to_string(w) + "x" + std::to_string(h) + " picture padded to " +
               std::to_string(ew) + "x" + std::to_string(eh) + " by repeating its last " +
               (ew != w && eh != h ? "column and row" : ew != w ? "column" : "row") + " (" +
               FrameFormatName(pix_fmt) + " needs even sides)");
        bgra.swap(even);
        w = ew;
        h = eh;
    }
    const int cw = w / 2, ch = h / 2;
    std::vector<uint8_t> y(static_cast<size_t>(w) * h), u(static_cast<size_t>(cw) * ch),
        v(u.size());
    libyuv::ARGBToJ420(bgra.data(), w * 4, y.data(), w, u.data(), cw, v.data(), cw, w, h);
    frame.bytes.resize(FrameBytes(pix_fmt, w, h));
    uint8_t* chroma = frame.bytes.data() + static_cast<size_t>(w) * h;
    if (pixfmt::Find(pix_fmt)->chroma_vu) {
        libyuv::I420ToNV21(y.data(), w, u.data(), cw, v.data(), cw, frame.bytes.data(), w,
                           chroma, w, w, h);
    } else {
        libyuv::I420ToNV12(y.data(), w, u.data(), cw, v.data(), cw, frame.bytes.data(), w,
                           chroma, w, w, h);
    }
    frame.Bind(pix_fmt, w, h, 1, ori);
}

Picture FrameToPicture(const QVN_Image& frame) {
    const int w = frame.width, h = frame.height;
    std::vector<uint8_t> bgra(static_cast<size_t>(w) * h * 4);
    const uint8_t* data = frame.data;
    if (pixfmt::IsFourByteColour(frame.pix_fmt)) {
        if (IsBgra(frame.pix_fmt)) {
            std::memcpy(bgra.data(), data, bgra.size());
        } else {
            libyuv::ABGRToARGB(data, w * 4, bgra.data(), w * 4, w, h);
        }
    } else if (pixfmt::IsTwoPlane(frame.pix_fmt)) {
        const uint8_t* chroma = data + static_cast<size_t>(w) * h;
        // Chroma stride is the luma width: (w / 2) pairs of two bytes.
        if (pixfmt::Find(frame.pix_fmt)->chroma_vu) {
            libyuv::NV21ToARGBMatrix(data, w, chroma, (w / 2) * 2, bgra.data(), w * 4,
                                     &libyuv::kYuvJPEGConstants, (w / 2) * 2, (h / 2) * 2);
        } else {
            libyuv::NV12ToARGBMatrix(data, w, chroma, (w / 2) * 2, bgra.data(), w * 4,
                                     &libyuv::kYuvJPEGConstants, (w / 2) * 2, (h / 2) * 2);
        }
    } else {
        throw ToolError("cannot show a frame of pixel format " + std::to_string(frame.pix_fmt),
                        kExitUsage);
    }
    Picture pic(w, h, 3);
    libyuv::ARGBToRAW(bgra.data(), w * 4, pic.pixels.data(), w * 3, w, h);
    return pic;
}

bool TooSmallForChroma(uint32_t pix_fmt, bool gray, int64_t width, int64_t height) {
    return pixfmt::IsTwoPlane(pix_fmt) && !gray && (width < 2 || height < 2);
}

QVN_Image PictureImage(Picture& pic) {
    QVN_Image img{};
    img.pix_fmt = pic.channels == 1   ? QVN_PIX_FMT_GRAY8
                  : pic.channels == 3 ? QVN_PIX_FMT_RGB888
                                      : QVN_PIX_FMT_RGBA8888;
    img.width = pic.width;
    img.height = pic.height;
    img.channels = pic.channels;
    img.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    img.data = pic.pixels.data();
    return img;
}

Picture TensorToPicture(const quvas::runtime::Tensor& tensor) {
    const std::vector<int32_t>& d = tensor.shape().dims;
    if (d.size() == 3 && tensor.shape().layout == quvas::runtime::layout::kCHW && d[0] == 3) {
        Picture pic(d[2], d[1], 3);
        QVN_Image src{}, dst{};
        src.width = d[2];
        src.height = d[1];
        src.data = tensor.data();
        dst.width = d[2];
        dst.height = d[1];
        dst.data = pic.pixels.data();
        quvas::kit::post_getRGB_HWC_from_RGB_CHW(&src, &dst);
        return pic;
    }
    int h = 0, w = 0;
    if (d.size() == 3 && d[2] == 1) {
        h = d[0];
        w = d[1];
    } else if (d.size() == 3 && d[0] == 1) {
        h = d[1];
        w = d[2];
    } else {
        throw ToolError("cannot show a tensor of this shape", kExitUsage);
    }
    Picture pic(w, h, 1);
    std::memcpy(pic.pixels.data(), tensor.data(), pic.pixels.size());
    return pic;
}

}  // namespace qvntool
