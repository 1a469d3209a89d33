// cmd_preprocess.cpp - `qvn-kit preprocess IN OUT`: a camera frame to a
// network input tensor with the kit's frame-to-tensor converters.
//
// IN is a PNG or JPEG (turned into the frame format given by --format) or,
// with --size, a raw file of one or more frames of that format laid out as
// the kit expects (tightly packed; two-plane formats with the chroma plane
// right after the luma plane). OUT ending in .npy receives the tensor as a
// uint8 NumPy array; any other name a PNG with the planes put back together.
//
// --float, --nhwc, --letterbox and --transform take the kit's tensor
// converter instead (QV_OnePass_Convert_FrameView_To_Tensor over a view of
// the frame): normalised float32 or bytes, planar or interleaved, the crop's
// aspect ratio kept when asked, and the map between frame and tensor
// coordinates written out as JSON.
#include "commands.hpp"
#include "common.hpp"
#include "console.hpp"
#include "frames.hpp"
#include "image_io.hpp"
#include "jpeg_planes.hpp"
#include "npy.hpp"
#include "pixel_format.h"
#include "plane_views.hpp"
#include "preprocess.hpp"

#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <new>

namespace qvntool {

TensorTarget ParseTensorSpec(const std::string& text, bool gray) {
    std::vector<int> d = ParseDims(text, "tensor shape", 3);
    if (!gray && d[0] != 3) {
        throw ToolError("tensor shape " + text + " cannot hold the output: the colour "
                            "converter writes 3 planes (use 3xHxW, or --gray with 1xHxW)",
                        kExitUsage);
    }
    if (gray && d[0] != 1) {
        throw ToolError("tensor shape " + text + " cannot hold the output: the gray "
                            "converter writes 1 plane (use 1xHxW)",
                        kExitUsage);
    }
    // The converter's intermediates hold up to four bytes per tensor pixel.
    CheckPixels(static_cast<uint64_t>(d[2]), static_cast<uint64_t>(d[1]), "tensor",
                kExitUsage);
    return TensorTarget{d[0], d[1], d[2], gray};
}

quvas::runtime::TensorPtr MakeOutputTensor(quvas::runtime::DeviceCPU& device,
                                           const TensorTarget& target) {
    using namespace quvas::runtime;
    if (target.gray) {
        return device.CreateTensor(
            TensorShape({target.h, target.w, 1}, data_type::kUInt8, layout::kHWC), nullptr);
    }
    return device.CreateTensor(
        TensorShape({target.c, target.h, target.w}, data_type::kUInt8, layout::kCHW), nullptr);
}

void ApplyLetterbox(int letterbox, const std::string& align, quvas::kit::TensorOptions& t) {
    if (!align.empty() && letterbox < 0) {
        throw ToolError("--letterbox-align needs --letterbox", kExitUsage);
    }
    if (letterbox > 255) {
        throw ToolError("--letterbox " + std::to_string(letterbox) + " is not in 0..255",
                        kExitUsage);
    }
    if (letterbox < 0) return;
    if (align.empty() || align == "centre") {
        t.letterbox = quvas::kit::Letterbox::kCentre;
    } else if (align == "topleft") {
        t.letterbox = quvas::kit::Letterbox::kTopLeft;
    } else {
        throw ToolError("--letterbox-align '" + align + "' is not centre or topleft", kExitUsage);
    }
    t.letterbox_pad = static_cast<uint8_t>(letterbox);
}

void AddLetterboxOptions(CLI::App* cmd, int* letterbox, std::string* align,
                         const char* pad_note) {
    cmd->add_option("--letterbox", *letterbox,
                    std::string("Keep the crop's aspect ratio: fit the picture inside the tensor "
                                "and pad the rest with this byte 0..255") +
                        pad_note);
    cmd->add_option("--letterbox-align", *align,
                    "Where the letterboxed picture lies: centre (default) or topleft");
}

std::vector<int> CheckCropPadChannels(const std::string& text, int pad, bool gray, bool bgr) {
    std::vector<int> crop;
    if (!text.empty()) {
        crop = ParseInts(text, "crop", 4);
        if (crop[2] <= 0 || crop[3] <= 0) {
            throw ToolError("crop '" + text + "' needs a positive width and height", kExitUsage);
        }
    }
    if (pad < 0 || pad > 255) {
        throw ToolError("--pad " + std::to_string(pad) + " is not in 0..255", kExitUsage);
    }
    if (gray && bgr) throw ToolError("--bgr and --gray exclude each other", kExitUsage);
    return crop;
}

namespace {

// The tool's checks on the tensor and the crop before a converter runs:
// the sizes the kit would refuse or silently misread, said in the tool's
// words.
void CheckTensorAndCrop(uint32_t pix_fmt, const TensorTarget& target,
                        const std::vector<int>& crop) {
    if (TooSmallForChroma(pix_fmt, target.gray, target.w, target.h)) {
        throw ToolError("tensor shape cannot hold the output: a two-plane frame needs a "
                            "tensor of at least 2x2 pixels",
                        kExitUsage);
    }
    if (!crop.empty()) {
        const int cw = crop[2], ch = crop[3];
        // The converter multiplies the crop's sides in 32 bits and would
        // silently take the whole frame when the product wraps; the limit
        // keeps it far below that.
        CheckPixels(static_cast<uint64_t>(cw), static_cast<uint64_t>(ch), "crop", kExitUsage);
        if (TooSmallForChroma(pix_fmt, target.gray, cw, ch)) {
            throw ToolError("crop " + std::to_string(cw) + "x" + std::to_string(ch) +
                                " is too small: a two-plane frame needs a crop of at least 2x2 "
                                "pixels",
                            kExitUsage);
        }
    }
}

// x, y, w, h of the crop; zeros (the whole frame) when none was given.
std::array<int, 4> CropOf(const std::vector<int>& crop) {
    if (crop.empty()) return {0, 0, 0, 0};
    return {crop[0], crop[1], crop[2], crop[3]};
}

}  // namespace

void ConvertFrame(const QVN_Image& frame, const TensorTarget& target, bool bgr,
                  const std::vector<int>& crop, unsigned char pad,
                  quvas::runtime::TensorPtr& tensor) {
    CheckTensorAndCrop(frame.pix_fmt, target, crop);
    const auto [cx, cy, cw, ch] = CropOf(crop);
    if (!quvas::kit::Is_Valid_QVN_Image_For_CPU(&frame, true)) {
        CheckLibrary("the library rejected the frame");
        throw ToolError("the library rejected the frame", kExitLibrary);
    }
    try {
        if (target.gray) {
            quvas::kit::
                QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
                    &frame, tensor, cx, cy, cw, ch, pad);
        } else {
            quvas::kit::
                QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
                    &frame, tensor, bgr, cx, cy, cw, ch, pad);
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw ToolError(std::string("the library failed on the frame: ") + e.what(),
                        kExitLibrary);
    }
    // A refusal leaves the tensor unfilled: never write it.
    CheckLibrary("the library refused the conversion");
}

void ConvertView(const quvas::kit::FrameView& view, const TensorTarget& target, bool bgr,
                 const std::vector<int>& crop, unsigned char pad,
                 quvas::runtime::TensorPtr& tensor) {
    // Three-plane 4:2:0 has the two-plane formats' 2x2 chroma blocks.
    const bool four_two_zero = quvas::kit::pixfmt::IsFourTwoZero(view.pix_fmt);
    CheckTensorAndCrop(four_two_zero ? uint32_t{QVN_PIX_FMT_YUV420SP_C} : view.pix_fmt, target,
                       crop);
    const auto [cx, cy, cw, ch] = CropOf(crop);
    if (!quvas::kit::Is_Valid_FrameView(view)) {
        CheckLibrary("the library rejected the frame");
        throw ToolError("the library rejected the frame", kExitLibrary);
    }
    try {
        if (target.gray) {
            quvas::kit::
                QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_Gray8_TensorCPU(
                    view, tensor, cx, cy, cw, ch, pad);
        } else {
            quvas::kit::
                QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
                    view, tensor, bgr, cx, cy, cw, ch, pad);
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw ToolError(std::string("the library failed on the frame: ") + e.what(),
                        kExitLibrary);
    }
    CheckLibrary("the library refused the conversion");
}

void WriteTensor(const std::string& path, const quvas::runtime::Tensor& tensor, bool bgr) {
    if (Extension(path) == ".npy") {
        std::vector<size_t> shape;
        for (int32_t d : tensor.shape().dims) shape.push_back(static_cast<size_t>(d));
        WriteNpyU8(path, shape, tensor.data());
        return;
    }
    Picture pic = TensorToPicture(tensor);
    WritePng(path, pic, bgr && pic.channels == 3);
}

std::string IndexedPath(const std::string& path, long index, long count) {
    if (count <= 1) return path;
    char num[32];
    std::snprintf(num, sizeof num, "_%05ld", index);
    std::string ext = Extension(path);
    return path.substr(0, path.size() - ext.size()) + num + path.substr(path.size() - ext.size());
}

size_t RawFrameBytes(uint32_t pix_fmt, const std::string& size_text, Size2& size) {
    size = ParseSize(size_text, "size");
    CheckPixels(static_cast<uint64_t>(size.w), static_cast<uint64_t>(size.h), "raw frame size",
                kExitUsage);
    size_t frame_bytes = FrameBytes(pix_fmt, size.w, size.h);
    if (frame_bytes == 0) {
        if (quvas::kit::pixfmt::IsFourTwoZero(pix_fmt) && (size.w % 2 != 0 || size.h % 2 != 0)) {
            throw ToolError(std::string("raw ") + FrameFormatName(pix_fmt) + " frames need an "
                                "even width and height, not " + size_text,
                            kExitUsage);
        }
        throw ToolError(std::string("raw ") + FrameFormatName(pix_fmt) + " frames of " +
                            size_text + " hold 4 GiB or more, beyond the kit's 32-bit byte count",
                        kExitUsage);
    }
    return frame_bytes;
}

long RawFrameCount(uint32_t pix_fmt, const std::string& size_text, size_t frame_bytes,
                   const std::string& path, size_t file_bytes) {
    if (file_bytes == 0 || file_bytes % frame_bytes != 0) {
        throw ToolError("raw file '" + path + "' holds " + std::to_string(file_bytes) +
                            " bytes, not a whole number of " + size_text + " " +
                            FrameFormatName(pix_fmt) + " frames of " +
                            std::to_string(frame_bytes) + " bytes",
                        kExitInput);
    }
    return static_cast<long>(file_bytes / frame_bytes);
}

namespace {

struct PreprocessOptions {
    std::string in, out, format = "nv21", size, orient = "0", crop, tensor, jpeg = "rgb";
    bool bgr = false, gray = false;
    int pad = 0, reduce = 1;
    // The tensor converter's options; `letterbox` < 0: none.
    bool as_float = false, nhwc = false;
    std::string mean, std_dev, align, transform;
    int letterbox = -1;
    bool TensorRoute() const {
        return as_float || nhwc || letterbox >= 0 || !transform.empty();
    }
};

// The tensor converter's options from the command line; ToolError (usage)
// for values the kit would refuse, before any frame is read.
quvas::kit::TensorOptions TensorOptionsOf(const PreprocessOptions& o, const TensorTarget& target,
                                          const std::vector<int>& crop) {
    namespace kit = quvas::kit;
    kit::TensorOptions t;
    t.width = target.w;
    t.height = target.h;
    t.gray = target.gray;
    t.to_bgr = o.bgr;
    const auto [cx, cy, cw, ch] = CropOf(crop);
    t.crop_x = cx;
    t.crop_y = cy;
    t.crop_w = cw;
    t.crop_h = ch;
    t.pad_value = static_cast<uint8_t>(o.pad);
    if ((!o.mean.empty() || !o.std_dev.empty()) && !o.as_float) {
        throw ToolError("--mean and --std need --float", kExitUsage);
    }
    ApplyLetterbox(o.letterbox, o.align, t);
    if (o.as_float) {
        // Without --mean and --std the bytes are only converted: 0 and 1.
        const size_t n = target.gray ? 1 : 3;
        t.mean = o.mean.empty() ? std::vector<float>(n, 0.f) : ParseFloats(o.mean, "--mean", n);
        t.std = o.std_dev.empty() ? std::vector<float>(n, 1.f)
                                  : ParseFloats(o.std_dev, "--std", n);
        for (size_t c = 0; c < n; ++c) {
            if (!std::isfinite(t.mean[c])) {
                throw ToolError("--mean '" + o.mean + "' has a value that is not finite",
                                kExitUsage);
            }
            if (!std::isfinite(t.std[c]) || t.std[c] == 0.f) {
                throw ToolError("--std '" + o.std_dev + "' has a value that is 0 or not finite",
                                kExitUsage);
            }
        }
    }
    if (!o.as_float && o.nhwc && Extension(o.out) != ".npy") {
        throw ToolError("--nhwc writes a .npy, not '" + o.out + "'", kExitUsage);
    }
    if (o.as_float && Extension(o.out) != ".npy") {
        throw ToolError("--float writes a .npy, not '" + o.out + "'", kExitUsage);
    }
    return t;
}

// {"to_tensor": [6], "to_frame": [6], "tensor": [w, h], "picture": [x, y, w, h]}:
// frame points normalised to 0..1 of the frame as stored, tensor points in
// pixels with pixel (i, j) covering [i, i + 1) x [j, j + 1).
void WriteTransform(const std::string& path, const quvas::kit::TensorTransform& t) {
    std::string text = "{\"to_tensor\": [";
    char num[40];
    for (int i = 0; i < 6; ++i) {
        std::snprintf(num, sizeof num, "%s%.17g", i ? ", " : "", t.to_tensor[i]);
        text += num;
    }
    text += "], \"to_frame\": [";
    for (int i = 0; i < 6; ++i) {
        std::snprintf(num, sizeof num, "%s%.17g", i ? ", " : "", t.to_frame[i]);
        text += num;
    }
    text += "], \"tensor\": [" + std::to_string(t.tensor_width) + ", " +
            std::to_string(t.tensor_height) + "], \"picture\": [" +
            std::to_string(t.picture_x) + ", " + std::to_string(t.picture_y) + ", " +
            std::to_string(t.picture_width) + ", " + std::to_string(t.picture_height) + "]}\n";
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
    if (!f.flush()) throw ToolError("cannot write '" + path + "'", kExitOutput);
}

// One frame through the tensor converter into OUT (and the transform into
// --transform when given).
void ConvertToTensor(const quvas::kit::FrameView& view, const quvas::kit::TensorOptions& t,
                     const PreprocessOptions& o, const std::string& out, bool write_transform) {
    namespace kit = quvas::kit;
    const size_t c = t.gray ? 1 : 3, h = static_cast<size_t>(t.height),
                 w = static_cast<size_t>(t.width);
    kit::TensorBuffer buf;
    buf.element = o.as_float ? kit::TensorElement::kFloat32 : kit::TensorElement::kUInt8;
    buf.order = o.nhwc ? kit::TensorOrder::kInterleaved : kit::TensorOrder::kPlanar;
    std::vector<float> floats(o.as_float ? c * h * w : 0);
    std::vector<uint8_t> bytes(o.as_float ? 0 : c * h * w);
    buf.data = o.as_float ? static_cast<void*>(floats.data()) : static_cast<void*>(bytes.data());
    kit::TensorTransform transform;
    if (!kit::QV_OnePass_Convert_FrameView_To_Tensor(view, t, buf, &transform)) {
        CheckLibrary("the library refused the conversion");
        throw ToolError("the library refused the conversion", kExitLibrary);
    }
    const std::vector<size_t> shape =
        o.nhwc ? std::vector<size_t>{h, w, c} : std::vector<size_t>{c, h, w};
    if (o.as_float) {
        WriteNpyFloat(out, shape, floats.data());
    } else if (Extension(out) == ".npy") {
        WriteNpyU8(out, t.gray ? std::vector<size_t>{h, w, 1} : shape, bytes.data());
    } else {
        // Planar bytes: the PNG the other route writes.
        quvas::runtime::DeviceCPU device;
        TensorTarget target{static_cast<int>(c), t.height, t.width, t.gray};
        quvas::runtime::TensorPtr tensor = MakeOutputTensor(device, target);
        std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(tensor->data()));
        WriteTensor(out, *tensor, o.bgr);
    }
    if (write_transform && !o.transform.empty()) WriteTransform(o.transform, transform);
}

// The view of a frame the tool made, checked by the kit.
quvas::kit::FrameView ViewOf(const QVN_Image& image) {
    quvas::kit::FrameView view;
    if (!quvas::kit::FrameView_From_QVN_Image(&image, &view)) {
        CheckLibrary("the library rejected the frame");
        throw ToolError("the library rejected the frame", kExitLibrary);
    }
    return view;
}

// The DCT scale to decode a JPEG at: the largest of reduce, reduce / 2, ...
// at which the crop (the whole picture when none is given), so scaled, is
// still at least as large as the tensor on both sides.
int ChooseReduce(int reduce, const JpegHeader& header, uint32_t ori,
                 const std::vector<int>& crop, const TensorTarget& target) {
    int64_t cw = header.width, ch = header.height;
    const bool quarter_turn = ((ori & QVN_ORIENT_FMT_ROTATE_90R) != 0) !=
                              ((ori & QVN_ORIENT_FMT_ROTATE_90L) != 0);
    if (!crop.empty()) {
        cw = crop[2];
        ch = crop[3];
    } else if (quarter_turn) {
        std::swap(cw, ch);
    }
    while (reduce > 1 && (static_cast<int64_t>(target.w) * reduce > cw ||
                          static_cast<int64_t>(target.h) * reduce > ch)) {
        reduce /= 2;
    }
    return reduce;
}

// A crop of the full-size picture in the picture decoded at 1/reduce:
// x and y divided and rounded down, width and height rounded to nearest
// (at least 1).
std::vector<int> ScaledCrop(const std::vector<int>& crop, int reduce) {
    if (crop.empty() || reduce == 1) return crop;
    auto floor_div = [reduce](int v) {
        return v >= 0 ? v / reduce : -((-v + reduce - 1) / reduce);
    };
    auto near_div = [reduce](int v) { return std::max(1, (v + reduce / 2) / reduce); };
    return {floor_div(crop[0]), floor_div(crop[1]), near_div(crop[2]), near_div(crop[3])};
}

// A 4:2:0 JPEG straight from its planes through the one-pass converter;
// false when the picture is not one (the caller takes the RGB route).
bool PreprocessJpegPlanes(const PreprocessOptions& o, const std::vector<uint8_t>& bytes,
                          uint32_t ori, const std::vector<int>& crop,
                          const TensorTarget& target, quvas::runtime::DeviceCPU& device) {
    const JpegHeader header = ReadJpegHeader(bytes);
    if (!header.planes420) return false;
    const int reduce = ChooseReduce(o.reduce, header, ori, crop, target);
    JpegPlanes planes;
    if (!DecodeJpegPlanes(o.in, bytes, reduce, planes)) return false;
    if (o.TensorRoute()) {
        CheckTensorAndCrop(QVN_PIX_FMT_YUV420SP_C, target, ScaledCrop(crop, reduce));
        ConvertToTensor(JpegFrameView(planes, ori),
                        TensorOptionsOf(o, target, ScaledCrop(crop, reduce)), o, o.out, true);
        return true;
    }
    quvas::runtime::TensorPtr tensor = MakeOutputTensor(device, target);
    ConvertView(JpegFrameView(planes, ori), target, o.bgr, ScaledCrop(crop, reduce),
                static_cast<unsigned char>(o.pad), tensor);
    WriteTensor(o.out, *tensor, o.bgr);
    return true;
}

void RunPreprocess(const PreprocessOptions& o) {
    uint32_t pix_fmt = ParseFrameFormat(o.format);
    uint32_t ori = ParseOrientation(o.orient);
    const std::vector<int> crop = CheckCropPadChannels(o.crop, o.pad, o.gray, o.bgr);
    TensorTarget target =
        ParseTensorSpec(o.tensor.empty() ? (o.gray ? "1x256x256" : "3x256x256") : o.tensor,
                        o.gray);
    quvas::runtime::DeviceCPU device;
    // Refuses bad --float/--letterbox values before anything is read.
    const quvas::kit::TensorOptions tensor_options = TensorOptionsOf(o, target, crop);

    if (o.jpeg != "rgb" && o.jpeg != "planes") {
        throw ToolError("--jpeg '" + o.jpeg + "' is not rgb or planes", kExitUsage);
    }
    if (o.reduce != 1 && o.reduce != 2 && o.reduce != 4 && o.reduce != 8) {
        throw ToolError("--reduce " + std::to_string(o.reduce) + " is not 1, 2, 4 or 8",
                        kExitUsage);
    }
    if (o.reduce != 1 && o.jpeg != "planes") {
        throw ToolError("--reduce needs --jpeg planes", kExitUsage);
    }
    if (o.size.empty()) {
        const std::vector<uint8_t> bytes = ReadPictureBytes(o.in);
        if (o.jpeg == "planes" && IsJpeg(bytes) &&
            PreprocessJpegPlanes(o, bytes, ori, crop, target, device)) {
            return;
        }
        Picture pic = DecodePicture(o.in, bytes);
        Frame frame;
        PictureToFrame(pic, pix_fmt, ori, frame);
        if (o.TensorRoute()) {
            CheckTensorAndCrop(pix_fmt, target, crop);
            ConvertToTensor(ViewOf(frame.image), tensor_options, o, o.out, true);
            return;
        }
        quvas::runtime::TensorPtr tensor = MakeOutputTensor(device, target);
        ConvertFrame(frame.image, target, o.bgr, crop, static_cast<unsigned char>(o.pad), tensor);
        WriteTensor(o.out, *tensor, o.bgr);
        return;
    }

    Size2 size;
    const size_t frame_bytes = RawFrameBytes(pix_fmt, o.size, size);
    std::vector<uint8_t> bytes = ReadFileBytes(o.in);
    const long count = RawFrameCount(pix_fmt, o.size, frame_bytes, o.in, bytes.size());
    Progress progress("preprocess", count);
    for (long i = 0; i < count; ++i) {
        Frame frame;
        frame.bytes.assign(bytes.begin() + static_cast<long>(frame_bytes) * i,
                           bytes.begin() + static_cast<long>(frame_bytes) * (i + 1));
        const int channels = quvas::kit::pixfmt::IsFourByteColour(pix_fmt) ? 4 : 1;
        frame.Bind(pix_fmt, size.w, size.h, channels, ori);
        if (o.TensorRoute()) {
            CheckTensorAndCrop(pix_fmt, target, crop);
            ConvertToTensor(ViewOf(frame.image), tensor_options, o, IndexedPath(o.out, i, count),
                            i == 0);
            progress.Step(i + 1);
            continue;
        }
        quvas::runtime::TensorPtr tensor = MakeOutputTensor(device, target);
        ConvertFrame(frame.image, target, o.bgr, crop, static_cast<unsigned char>(o.pad), tensor);
        WriteTensor(IndexedPath(o.out, i, count), *tensor, o.bgr);
        progress.Step(i + 1);
    }
}

}  // namespace

void AddPreprocessCommand(CLI::App& app) {
    auto opts = std::make_shared<PreprocessOptions>();
    CLI::App* cmd = app.add_subcommand(
        "preprocess", "Turn a frame (PNG/JPEG or raw) into a network input tensor");
    cmd->add_option("IN", opts->in, "Input PNG/JPEG, or raw frames with --size")->required();
    cmd->add_option("OUT", opts->out,
                    "Output: .npy for a uint8 array, anything else for a PNG; several raw "
                    "frames give OUT_00000.ext, OUT_00001.ext, ...")
        ->required();
    cmd->add_option("--format", opts->format,
                    "Frame format: nv21 (default), nv12, bgra, rgba; raw files also "
                    "yuv420sp_a, yuv420sp_b");
    cmd->add_option("--size", opts->size,
                    "WxH of the frames of a raw input file (even sides for two-plane formats)");
    cmd->add_option("--orient", opts->orient,
                    "Orientation of the frame, undone by the conversion: a number or names "
                    "joined by '|' (upright, rotate90r, rotate90l, rotate180, flipv, mirror, "
                    "box_rotate180)");
    cmd->add_option("--crop", opts->crop, "x,y,w,h region of the upright view, in pixels");
    cmd->add_option("--tensor", opts->tensor, "Tensor shape CxHxW (3x256x256; 1xHxW with --gray)");
    cmd->add_flag("--bgr", opts->bgr, "Planes in B,G,R order");
    cmd->add_flag("--gray", opts->gray, "One gray plane");
    cmd->add_option("--pad", opts->pad, "Value 0..255 of crop pixels outside the frame (0)");
    cmd->add_option("--jpeg", opts->jpeg,
                    "How a JPEG becomes a frame: rgb (default) decodes to R,G,B and makes a "
                    "--format frame for the step-by-step converter, as data sets made so far "
                    "were; planes hands a 4:2:0 JPEG's own Y, Cb, Cr planes (BT.601 full range) "
                    "to the one-pass converter, other JPEGs and PNGs take the rgb route");
    cmd->add_option("--reduce", opts->reduce,
                    "With --jpeg planes: decode a 4:2:0 JPEG at 1/2, 1/4 or 1/8 scale in the "
                    "DCT (2, 4, 8), or the largest of those up to this one at which the crop "
                    "(or the whole picture) stays at least as large as the tensor; the crop is "
                    "divided by the scale (x, y rounded down, w, h to nearest)");
    cmd->add_flag("--float", opts->as_float,
                  "Write float32 (value - mean) / std per channel (.npy only), through the "
                  "one-pass tensor converter");
    cmd->add_option("--mean", opts->mean, "With --float: R,G,B means (one value with --gray; 0)");
    cmd->add_option("--std", opts->std_dev,
                    "With --float: R,G,B standard deviations, finite and non-zero (1)");
    cmd->add_flag("--nhwc", opts->nhwc, "Interleaved H x W x C instead of C x H x W (.npy only)");
    AddLetterboxOptions(cmd, &opts->letterbox, &opts->align, " (before normalisation)");
    cmd->add_option("--transform", opts->transform,
                    "Write the map between frame coordinates (0..1 of the frame as stored) and "
                    "tensor pixels to this JSON file: to_tensor and to_frame (2x3, row-major), "
                    "tensor [w, h], picture [x, y, w, h]");
    cmd->callback([opts] { RunPreprocess(*opts); });
}

}  // namespace qvntool
