// cmd_orient.cpp - `qvn-kit orient IN OUT --rotate A | --mirror | --flipv`:
// the kit's CPU image orientation on a PNG or JPEG.
#include "commands.hpp"
#include "common.hpp"
#include "image_io.hpp"
#include "frames.hpp"

#include <qvn_kit/qvn_kit.h>

#include <CLI/CLI.hpp>

namespace qvntool {
namespace {

struct OrientOptions {
    std::string in, out;
    int rotate = -1;
    bool mirror = false;
    bool flipv = false;
};

void RunOrient(const OrientOptions& o) {
    int chosen = (o.rotate >= 0) + o.mirror + o.flipv;
    if (chosen != 1) {
        throw ToolError("choose exactly one of --rotate, --mirror, --flipv", kExitUsage);
    }
    if (o.rotate >= 0 && o.rotate != 90 && o.rotate != 180 && o.rotate != 270) {
        throw ToolError("--rotate " + std::to_string(o.rotate) + " is not 90, 180 or 270",
                        kExitUsage);
    }
    Picture pic = ReadPicture(o.in);
    QVN_Image src = PictureImage(pic);
    Picture out(pic.width, pic.height, pic.channels);
    QVN_Image dst = src;  // mirror and flip write only pixels and rect
    dst.data = out.pixels.data();
    int32_t status = 0;
    if (o.rotate >= 0) {
        status = QVN_Clockwise_Rotate_Image_CPU(&src, &dst, o.rotate);
    } else if (o.mirror) {
        status = QVN_Mirror_Image_CPU(&src, &dst);
    } else {
        status = QVN_FlipV_Image_CPU(&src, &dst);
    }
    if (status != 0) {
        throw ToolError("the library refused the image (status " + std::to_string(status) + ")",
                        kExitLibrary);
    }
    CheckLibrary("the library refused the image");
    out.width = dst.width;
    out.height = dst.height;
    WritePng(o.out, out);
}

}  // namespace

void AddOrientCommand(CLI::App& app) {
    auto opts = std::make_shared<OrientOptions>();
    CLI::App* cmd = app.add_subcommand(
        "orient", "Turn, mirror or flip a PNG/JPEG with the kit's CPU image orientation");
    cmd->add_option("IN", opts->in, "Input PNG or JPEG")->required();
    cmd->add_option("OUT", opts->out, "Output PNG")->required();
    cmd->add_option("--rotate", opts->rotate, "Clockwise turn in degrees: 90, 180 or 270");
    cmd->add_flag("--mirror", opts->mirror, "Mirror left to right");
    cmd->add_flag("--flipv", opts->flipv, "Flip top to bottom");
    cmd->callback([opts] { RunOrient(*opts); });
}

}  // namespace qvntool
