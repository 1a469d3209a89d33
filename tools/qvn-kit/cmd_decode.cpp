// cmd_decode.cpp - `qvn-kit decode IN.npy`: keypoint heatmaps (C x H x W
// float32) to one point per channel with the kit's SoftArgMax decoder.
// x and y are the decoder's: -1 at the first column/row, +1 at the last.
#include "commands.hpp"
#include "common.hpp"
#include "npy.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>

namespace qvntool {
namespace {

struct DecodeOptions {
    std::string in, out;
    float beta = 1.0f;
    bool confidence = false;
    bool vector = false;
    bool json = false;
};

std::string Number(float v, bool json) {
    if (!std::isfinite(v)) return json ? "null" : (std::isnan(v) ? "nan" : "inf");
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

void RunDecode(const DecodeOptions& o) {
    Finite(o.beta, "--beta");
    NpyArray arr = ReadNpyFloat(o.in);
    std::vector<size_t> s = arr.shape;
    if (s.size() == 2) s.insert(s.begin(), 1);
    if (s.size() != 3 || s[0] == 0 || s[1] < 2 || s[2] < 2 || s[0] > 4096 || s[1] > 8192 ||
        s[2] > 8192) {
        throw ToolError("heatmaps '" + o.in +
                            "' must be a C x H x W (or H x W) float32 array with H, W >= 2",
                        kExitInput);
    }
    CheckPixels(s[2], s[1] * s[0], "heatmaps '" + o.in + "'", kExitInput);
    for (float v : arr.values) {
        if (!std::isfinite(v)) {
            throw ToolError("heatmaps '" + o.in + "' hold a value that is not finite",
                            kExitInput);
        }
    }
    const int c = static_cast<int>(s[0]), h = static_cast<int>(s[1]), w = static_cast<int>(s[2]);
    if (o.vector && w % 4 != 0) {
        throw ToolError("--vector needs a heatmap width that is a multiple of 4 (got " +
                            std::to_string(w) + ")",
                        kExitUsage);
    }
    quvas::kit::SoftArgMax decoder(w, h, c, o.beta);
    if (o.vector) {
        decoder.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(arr.values.data(), c, h, w);
    } else if (o.confidence) {
        decoder.Decode_WithConfidenceNoSqrt_CHW_F32(arr.values.data(), c, h, w);
    } else {
        decoder.Decode_CHW_F32(arr.values.data(), c, h, w);
    }
    CheckLibrary("the library refused the heatmaps");
    for (int i = 0; i < c; ++i) {
        // exp(beta * value) overflows for beta * value above about 88.
        if (!std::isfinite(decoder.x_out[i]) || !std::isfinite(decoder.y_out[i]) ||
            (o.confidence || o.vector ? !std::isfinite(decoder.confidence[i]) : false)) {
            throw ToolError("decoding channel " + std::to_string(i) + " of '" + o.in +
                                "' gave a non-finite result: beta times the heatmap values "
                                "overflows the exponential (lower --beta)",
                            kExitInput);
        }
    }
    std::string text;
    if (o.json) {
        text = "{\"heatmaps\": [" + std::to_string(c) + ", " + std::to_string(h) + ", " +
               std::to_string(w) + "], \"beta\": " + Number(o.beta, true) + ", \"keypoints\": [";
        for (int i = 0; i < c; ++i) {
            text += std::string(i ? ", " : "") + "{\"channel\": " + std::to_string(i) +
                    ", \"x\": " + Number(decoder.x_out[i], true) +
                    ", \"y\": " + Number(decoder.y_out[i], true) +
                    ", \"confidence\": " + Number(decoder.confidence[i], true) + "}";
        }
        text += "]}\n";
    } else {
        text = "channel,x,y,confidence\n";
        for (int i = 0; i < c; ++i) {
            text += std::to_string(i) + "," + Number(decoder.x_out[i], false) + "," +
                    Number(decoder.y_out[i], false) + "," +
                    Number(decoder.confidence[i], false) + "\n";
        }
    }
    if (o.out.empty() || o.out == "-") {
        std::fputs(text.c_str(), stdout);
    } else {
        WriteTextAtomically(o.out, text);
    }
}

}  // namespace

void AddDecodeCommand(CLI::App& app) {
    auto opts = std::make_shared<DecodeOptions>();
    CLI::App* cmd = app.add_subcommand(
        "decode", "Decode keypoint heatmaps (C x H x W float32 .npy) with SoftArgMax");
    cmd->add_option("IN", opts->in, "Input .npy")->required();
    cmd->add_option("-o,--output", opts->out, "Write here instead of standard output");
    cmd->add_option("--beta", opts->beta, "Sharpening factor applied before the exponential (1)");
    cmd->add_flag("--confidence", opts->confidence,
                  "Also compute the spread (weighted variance) around each point");
    cmd->add_flag("--vector", opts->vector,
                  "Use the vectorised decoder with spread (width a multiple of 4)");
    cmd->add_flag("--json", opts->json, "JSON instead of CSV");
    cmd->callback([opts] { RunDecode(*opts); });
}

}  // namespace qvntool
