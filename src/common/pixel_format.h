// What the kit and its front ends know about each pixel format, written once.
//
// Every QVN_PIX_FMT value has one row: how its bytes are laid out, which
// colour weights the converters hand to the core, which name users type for
// it. Code that has to ask "is this a 4:2:0 frame?", "how many bytes?",
// "which chroma byte comes first?" reads the row instead of writing its own
// switch, so a new format is one row here plus its kernels.
//
// Header-only and internal: the kit, the tool, the Python module and the
// picture-file library include it from the source tree; nothing is exported.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qvn_kit/qvn_kit.h"

namespace quvas {
namespace kit {
namespace pixfmt {

enum class Layout : uint8_t {
    kInvalid,        // QVN_PIX_FMT_UNKNOW, QVN_PIX_FMT_ERROR
    kTwoPlane420,    // luma plane, then one interleaved chroma plane of (w/2) x (h/2) pairs
    kThreePlane420,  // luma plane, then two chroma planes of (w/2) x (h/2) bytes
    kPacked,         // one plane of bytes_per_pixel bytes a pixel
    kChannels,       // one plane of `channels` bytes a pixel
    kFloatChannels,  // one plane of `channels` floats a pixel
};

struct Format {
    uint32_t id;            // the QVN_PIX_FMT value
    const char* name;       // what users type on the command line and in Python; nullptr: none
    Layout layout;
    uint8_t luma_bytes;     // packed: bytes a pixel; 4:2:0: bytes a luma sample; else 0
    int8_t red_byte;        // packed colour: where R sits in a pixel; -1 for none
    bool chroma_vu;         // 4:2:0: the V sample precedes the U sample
    int8_t yuv_weights;     // 4:2:0 input frames: row of the converters' weight table; -1 none
    bool input_frame;       // the QVN_Image frame-to-tensor converters take it
    bool input_image;       // the image validator accepts it as an input
    bool view_frame;        // the FrameView converters take it
};

// Rows in QVN_PIX_FMT order, so Find() is an index. Three-plane 4:2:0
// ("i420": Y, U, V planes, FFmpeg's yuv420p) is taken only by the FrameView
// converters, whose planes are always given as Y, U, V. The weight rows are the
// order of the converters' YUV weight table: 0 BT.709, 1 BT.601 full range,
// 2 BT.601 in 64ths, 3 the same with V first. Two-plane formats 2, 3 and 8
// carry U first; the chroma order of format 9 lives in its weights as well.
constexpr Format kFormats[] = {
    {QVN_PIX_FMT_UNKNOW, nullptr, Layout::kInvalid, 0, -1, false, -1, false, false, false},
    {QVN_PIX_FMT_YUV420_A, "i420", Layout::kThreePlane420, 1, -1, false, -1, false, true, true},
    {QVN_PIX_FMT_YUV420SP_A, "yuv420sp_a", Layout::kTwoPlane420, 1, -1, false, 0, true, true, true},
    {QVN_PIX_FMT_YUV420SP_B, "yuv420sp_b", Layout::kTwoPlane420, 1, -1, false, 1, true, true, true},
    {QVN_PIX_FMT_YUV420_B, nullptr, Layout::kThreePlane420, 1, -1, false, -1, false, true, false},
    {QVN_PIX_FMT_BGRA8888, "bgra", Layout::kPacked, 4, 2, false, -1, true, true, true},
    {QVN_PIX_FMT_RGBA8888, "rgba", Layout::kPacked, 4, 0, false, -1, true, true, true},
    {QVN_PIX_FMT_GRAY8, nullptr, Layout::kPacked, 1, -1, false, -1, false, false, false},
    {QVN_PIX_FMT_YUV420SP_C, "nv12", Layout::kTwoPlane420, 1, -1, false, 2, true, true, true},
    {QVN_PIX_FMT_YUV420SP_D, "nv21", Layout::kTwoPlane420, 1, -1, true, 3, true, true, true},
    {QVN_PIX_FMT_RGB888, nullptr, Layout::kPacked, 3, 0, false, -1, false, true, false},
    {QVN_PIX_FMT_BGR888, nullptr, Layout::kPacked, 3, 2, false, -1, false, true, false},
    {QVN_PIX_FMT_4BPP, nullptr, Layout::kPacked, 4, -1, false, -1, false, false, false},
    {QVN_PIX_FMT_U8_CN, nullptr, Layout::kChannels, 0, -1, false, -1, false, false, false},
    {QVN_PIX_FMT_F32_CN, nullptr, Layout::kFloatChannels, 0, -1, false, -1, false, false, false},
    {QVN_PIX_FMT_ERROR, nullptr, Layout::kInvalid, 0, -1, false, -1, false, false, false},
};
constexpr size_t kFormatCount = sizeof(kFormats) / sizeof(kFormats[0]);

constexpr bool RowsInOrder() {
    for (size_t i = 0; i < kFormatCount; ++i) {
        if (kFormats[i].id != i) return false;
    }
    return true;
}
static_assert(RowsInOrder(), "one row per QVN_PIX_FMT value, in value order");

// The row of a format value; nullptr for a value no row describes.
constexpr const Format* Find(uint32_t id) {
    return id < kFormatCount ? &kFormats[id] : nullptr;
}

// The row of a typed name (exact, lower case); nullptr when no row has it.
inline const Format* FindByName(const char* name, size_t length) {
    for (const Format& f : kFormats) {
        if (f.name != nullptr && std::strlen(f.name) == length &&
            std::memcmp(f.name, name, length) == 0) {
            return &f;
        }
    }
    return nullptr;
}

// The typed name of a format value, or "unknown".
inline const char* NameOf(uint32_t id) {
    const Format* f = Find(id);
    return f != nullptr && f->name != nullptr ? f->name : "unknown";
}

constexpr Layout LayoutOf(uint32_t id) {
    return Find(id) != nullptr ? Find(id)->layout : Layout::kInvalid;
}

constexpr bool IsTwoPlane(uint32_t id) { return LayoutOf(id) == Layout::kTwoPlane420; }

// 4:2:0 keeps one chroma sample (pair) per 2x2 block: such frames need even
// sides, and a 4:2:0 output at least 2x2 pixels.
constexpr bool IsFourTwoZero(uint32_t id) {
    return LayoutOf(id) == Layout::kTwoPlane420 || LayoutOf(id) == Layout::kThreePlane420;
}

// Packed four-byte colour (B,G,R,A or R,G,B,A).
constexpr bool IsFourByteColour(uint32_t id) {
    return Find(id) != nullptr && Find(id)->layout == Layout::kPacked &&
           Find(id)->luma_bytes == 4 && Find(id)->red_byte >= 0;
}

constexpr bool IsInputFrame(uint32_t id) { return Find(id) != nullptr && Find(id)->input_frame; }
constexpr bool IsViewFrame(uint32_t id) { return Find(id) != nullptr && Find(id)->view_frame; }

// Three-plane 4:2:0 in one buffer comes in two plane orders; both are the
// three-plane format, the second with its chroma planes exchanged.
constexpr const char* kYV12Name = "yv12";  // Y, then V, then U

// Bytes of a tightly packed image in 64-bit arithmetic; 0 for a format with
// no layout or for sides that are not positive. 4:2:0 frames count
// (w/2) x (h/2) chroma samples per chroma plane, so only even sides give the
// size the converters read.
constexpr uint64_t ImageBytes(uint32_t id, int64_t width, int64_t height, int64_t channels = 1) {
    if (width <= 0 || height <= 0) return 0;
    const Format* f = Find(id);
    if (f == nullptr) return 0;
    const uint64_t wh = static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
    switch (f->layout) {
        case Layout::kTwoPlane420:
        case Layout::kThreePlane420: return wh + 2 * static_cast<uint64_t>(width / 2) * (height / 2);
        case Layout::kPacked: return wh * f->luma_bytes;
        case Layout::kChannels: return channels > 0 ? wh * static_cast<uint64_t>(channels) : 0;
        case Layout::kFloatChannels:
            return channels > 0 ? wh * static_cast<uint64_t>(channels) * 4 : 0;
        case Layout::kInvalid: return 0;
    }
    return 0;
}

}  // namespace pixfmt
}  // namespace kit
}  // namespace quvas
