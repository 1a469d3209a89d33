// cmd_preprocess.cpp - `qvn-kit preprocess IN OUT`: a camera frame to a
// network input tensor with the kit's frame-to-tensor converters.
//
// IN is a PNG or JPEG (turned into the frame format given by --format) or,
// with --size, a raw file of one or more frames of that format laid out as
// the kit expects (tightly packed; two-plane formats with the chroma plane
// right after the luma plane). OUT ending in .npy receives the tensor as a
// uint8 NumPy array; any other name a PNG with the planes put back together.
#include "commands.hpp"
#include "common.hpp"
#include "console.hpp"
#include "frames.hpp"
#include "image_io.hpp"
#include "npy.hpp"
#include "pixel_format.h"
#include "preprocess.hpp"

#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <CLI/CLI.hpp>

#include <cstdio>
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

void ConvertFrame(const QVN_Image& frame, const TensorTarget& target, bool bgr,
                  const std::vector<int>& crop, unsigned char pad,
                  quvas::runtime::TensorPtr& tensor) {
    if (TooSmallForChroma(frame.pix_fmt, target.gray, target.w, target.h)) {
        throw ToolError("tensor shape cannot hold the output: a two-plane frame needs a "
                            "tensor of at least 2x2 pixels",
                        kExitUsage);
    }
    int cx = 0, cy = 0, cw = 0, ch = 0;
    if (!crop.empty()) {
        cx = crop[0];
        cy = crop[1];
        cw = crop[2];
        ch = crop[3];
        // The converter multiplies the crop's sides in 32 bits and would
        // silently take the whole frame when the product wraps; the limit
        // keeps it far below that.
        CheckPixels(static_cast<uint64_t>(cw), static_cast<uint64_t>(ch), "crop", kExitUsage);
        if (TooSmallForChroma(frame.pix_fmt, target.gray, cw, ch)) {
            throw ToolError("crop " + std::to_string(cw) + "x" + std::to_string(ch) +
                                " is too small: a two-plane frame needs a crop of at least 2x2 "
                                "pixels",
                            kExitUsage);
        }
    }
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
    std::string in, out, format = "nv21", size, orient = "0", crop, tensor;
    bool bgr = false, gray = false;
    int pad = 0;
};

void RunPreprocess(const PreprocessOptions& o) {
    uint32_t pix_fmt = ParseFrameFormat(o.format);
    uint32_t ori = ParseOrientation(o.orient);
    std::vector<int> crop;
    if (!o.crop.empty()) {
        crop = ParseInts(o.crop, "crop", 4);
        if (crop[2] <= 0 || crop[3] <= 0) {
            throw ToolError("crop '" + o.crop + "' needs a positive width and height",
                            kExitUsage);
        }
    }
    if (o.pad < 0 || o.pad > 255) {
        throw ToolError("--pad " + std::to_string(o.pad) + " is not in 0..255", kExitUsage);
    }
    if (o.gray && o.bgr) throw ToolError("--bgr and --gray exclude each other", kExitUsage);
    TensorTarget target =
        ParseTensorSpec(o.tensor.empty() ? (o.gray ? "1x256x256" : "3x256x256") : o.tensor,
                        o.gray);
    quvas::runtime::DeviceCPU device;

    if (o.size.empty()) {
        Picture pic = ReadPicture(o.in);
        Frame frame;
        PictureToFrame(pic, pix_fmt, ori, frame);
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
    cmd->callback([opts] { RunPreprocess(*opts); });
}

}  // namespace qvntool
