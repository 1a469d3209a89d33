// cmd_mask.cpp - `qvn-kit mask IN.npy OUT.png [--sigmoid]`: a float map
// (H x W, or 1 x H x W) to a byte mask with the kit's float-to-byte
// converters.
#include "commands.hpp"
#include "common.hpp"
#include "image_io.hpp"
#include "npy.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <CLI/CLI.hpp>

#include <cmath>

namespace qvntool {
namespace {

struct MaskOptions {
    std::string in, out;
    bool sigmoid = false;
};

void RunMask(const MaskOptions& o) {
    NpyArray arr = ReadNpyFloat(o.in);
    std::vector<size_t> s = arr.shape;
    if (s.size() == 3 && s[0] == 1) s.erase(s.begin());
    if (s.size() != 2 || s[0] == 0 || s[1] == 0 || s[0] > (1u << 15) || s[1] > (1u << 15)) {
        throw ToolError("mask '" + o.in + "' must be an H x W (or 1 x H x W) float32 array",
                        kExitInput);
    }
    CheckPixels(s[1], s[0], "mask '" + o.in + "'", kExitInput);
    for (float v : arr.values) {
        if (std::isnan(v)) throw ToolError("mask '" + o.in + "' holds NaN", kExitInput);
    }
    const size_t n = s[0] * s[1];
    // The converters read and write whole blocks of 16 values.
    const size_t padded = (n + 15) / 16 * 16;
    std::vector<float> src(padded, 0.f);
    std::copy(arr.values.begin(), arr.values.end(), src.begin());
    std::vector<unsigned char> dst(padded, 0);
    if (o.sigmoid) {
        quvas::kit::sigmoid_float01toUchar0255SSE(src.data(), dst.data(), static_cast<int>(n));
    } else {
        quvas::kit::float01toUchar0255SSE(src.data(), dst.data(), static_cast<int>(n));
    }
    CheckLibrary("the library refused the mask");
    Picture pic(static_cast<int>(s[1]), static_cast<int>(s[0]), 1);
    std::copy(dst.begin(), dst.begin() + static_cast<long>(n), pic.pixels.begin());
    WritePng(o.out, pic);
}

}  // namespace

void AddMaskCommand(CLI::App& app) {
    auto opts = std::make_shared<MaskOptions>();
    CLI::App* cmd = app.add_subcommand("mask", "Turn a float32 map into a gray byte mask");
    cmd->add_option("IN", opts->in, "Input .npy, float32, H x W or 1 x H x W")->required();
    cmd->add_option("OUT", opts->out, "Output PNG")->required();
    cmd->add_flag("--sigmoid", opts->sigmoid, "Apply the logistic function first (raw scores)");
    cmd->callback([opts] { RunMask(*opts); });
}

}  // namespace qvntool
