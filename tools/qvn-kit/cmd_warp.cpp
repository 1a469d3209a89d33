// cmd_warp.cpp - `qvn-kit warp IN OUT --matrix m0,...,m5 --size WxH`: the
// kit's inverse-affine warps (scalar, or the vectorised one with --vector).
// The matrix maps an output pixel (x, y) to the input point
// (m0 x + m1 y + m2, m3 x + m4 y + m5).
#include "commands.hpp"
#include "common.hpp"
#include "frames.hpp"
#include "image_io.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <CLI/CLI.hpp>

namespace qvntool {
namespace {

struct WarpOptions {
    std::string in, out, matrix, size;
    bool vector = false;
    int border = 0;
};

void RunWarp(const WarpOptions& o) {
    std::vector<float> m = ParseFloats(o.matrix, "matrix", 6);
    Size2 size = ParseSize(o.size, "size");
    CheckPixels(static_cast<uint64_t>(size.w), static_cast<uint64_t>(size.h),
                "warp output", kExitUsage);
    if (o.border < 0 || o.border > 255) {
        throw ToolError("--border " + std::to_string(o.border) + " is not in 0..255",
                        kExitUsage);
    }
    Picture pic = ReadPicture(o.in);
    QVN_Image src = PictureImage(pic);
    Picture out(size.w, size.h, pic.channels);
    QVN_Image dst = PictureImage(out);
    if (o.vector) {
        // One border byte for every channel.
        unsigned word = static_cast<unsigned>(o.border) * 0x01010101u;
        quvas::kit::AffineInvQvimageBilinearSSE(&src, &dst, word, m.data());
    } else {
        quvas::kit::affine_inv_qvimage_bilinear(&src, &dst,
                                                static_cast<unsigned char>(o.border), m.data());
    }
    CheckLibrary("the library refused the warp");
    WritePng(o.out, out);
}

}  // namespace

void AddWarpCommand(CLI::App& app) {
    auto opts = std::make_shared<WarpOptions>();
    CLI::App* cmd = app.add_subcommand(
        "warp", "Resample a PNG/JPEG through an inverse affine matrix (bilinear)");
    cmd->add_option("IN", opts->in, "Input PNG or JPEG")->required();
    cmd->add_option("OUT", opts->out, "Output PNG")->required();
    cmd->add_option("--matrix", opts->matrix,
                    "m0,m1,m2,m3,m4,m5: output pixel (x,y) reads input "
                    "(m0*x+m1*y+m2, m3*x+m4*y+m5)")
        ->required();
    cmd->add_option("--size", opts->size, "Output size WxH")->required();
    cmd->add_flag("--vector", opts->vector, "Use the vectorised fixed-point warp");
    cmd->add_option("--border", opts->border, "Value 0..255 of pixels that map outside (0)");
    cmd->callback([opts] { RunWarp(*opts); });
}

}  // namespace qvntool
