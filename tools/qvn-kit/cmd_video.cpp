// cmd_video.cpp - `qvn-kit video IN OUT_DIR`: the frames of a video file,
// straight from the decoder's planes through the one-pass converter, into
// .npy shards of N x C x H x W bytes with an index of frame numbers and time
// stamps. --letterbox keeps the frame's aspect ratio through the kit's tensor
// converter (QV_OnePass_Convert_FrameView_To_Tensor), the bytes a program
// that converts the same frames with the same options hands its network.
//
// Every shard and the index are prepared as temporaries and appear together
// when the whole run succeeded (the index last); a run that fails, a video
// cut short included, leaves none of them.
#include "commands.hpp"
#include "common.hpp"
#include "console.hpp"
#include "npy.hpp"
#include "plane_views.hpp"
#include "preprocess.hpp"
#include "video_reader.hpp"

#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/frame_view.hpp>
#include <quvas/runtime/tensor.h>

#include <CLI/CLI.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace qvntool {
namespace {

struct VideoOptions {
    std::string in, out_dir, tensor, orient = "0", crop, frames, align;
    long every = 1;
    long shard = 256;
    bool bgr = false, gray = false;
    int pad = 0;
    int letterbox = -1;  // < 0: none
};

// "A:B" with either side empty: frame numbers A <= n < B, as a Python slice.
struct FrameRange {
    long first = 0;
    long end = LONG_MAX;
};

long ParseFrameNumber(const std::string& text, const std::string& whole) {
    if (text.find_first_not_of("0123456789") != std::string::npos || text.size() > 12) {
        throw ToolError("--frames '" + whole + "' needs frame numbers 0, 1, 2, ... as A:B",
                        kExitUsage);
    }
    return std::stol(text);
}

FrameRange ParseFrameRange(const std::string& text) {
    FrameRange range;
    if (text.empty()) return range;
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        throw ToolError("--frames '" + text + "' is not A:B", kExitUsage);
    }
    const std::string a = text.substr(0, colon), b = text.substr(colon + 1);
    if (!a.empty()) range.first = ParseFrameNumber(a, text);
    if (!b.empty()) range.end = ParseFrameNumber(b, text);
    if (range.end <= range.first) {
        throw ToolError("--frames '" + text + "' selects no frame", kExitUsage);
    }
    return range;
}

// True when the directory was made here.
bool MakeDirectory(const std::string& dir) {
    struct stat st{};
    if (::stat(dir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            throw ToolError("'" + dir + "' is not a directory", kExitOutput);
        }
        return false;
    }
    if (::mkdir(dir.c_str(), 0777) != 0) {
        throw ToolError("cannot create directory '" + dir + "': " + std::strerror(errno),
                        kExitOutput);
    }
    return true;
}

double Median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 != 0 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// One shard of frames being filled, and the index rows of every shard.
class ShardWriter {
public:
    ShardWriter(const std::string& dir, const TensorTarget& target, long rows)
        : dir_(dir),
          frame_bytes_(static_cast<size_t>(target.c) * target.h * target.w),
          shape_{0, static_cast<size_t>(target.c), static_cast<size_t>(target.h),
                 static_cast<size_t>(target.w)},
          rows_(rows) {}

    void Add(const uint8_t* tensor, const VideoFrame& frame) {
        buffer_.insert(buffer_.end(), tensor, tensor + frame_bytes_);
        char line[96];
        if (frame.has_time) {
            std::snprintf(line, sizeof line, ",%ld,%ld,%.6f\n", filled_, frame.number,
                          frame.seconds);
        } else {
            std::snprintf(line, sizeof line, ",%ld,%ld,\n", filled_, frame.number);
        }
        index_ += ShardName() + line;
        if (++filled_ == rows_) Flush();
    }

    // Writes the last, partly filled shard and then the index.
    void Finish() {
        Flush();
        WriteTextAtomically(dir_ + "/index.csv", "shard,row,frame,seconds\n" + index_);
    }

    long shards() const { return shards_; }

private:
    std::string ShardName() const {
        char name[32];
        std::snprintf(name, sizeof name, "frames_%05ld.npy", shards_);
        return name;
    }

    void Flush() {
        if (filled_ == 0) return;
        shape_[0] = static_cast<size_t>(filled_);
        WriteNpyU8(dir_ + "/" + ShardName(), shape_, buffer_.data());
        buffer_.clear();
        filled_ = 0;
        ++shards_;
    }

    std::string dir_;
    size_t frame_bytes_;
    std::vector<size_t> shape_;
    long rows_;
    long filled_ = 0;
    long shards_ = 0;
    std::vector<uint8_t> buffer_;
    std::string index_;
};

constexpr uint64_t kMaxShardBytes = uint64_t{1} << 31;

// What the options say once checked.
struct VideoPlan {
    TensorTarget target;
    FrameRange range;
    uint32_t ori = 0;
    std::vector<int> crop;
    // With --letterbox: the tensor converter's options.
    bool letterbox = false;
    quvas::kit::TensorOptions tensor_options;
};

void ConvertVideo(const VideoOptions& o, const VideoPlan& plan, VideoReader& reader);

void RunVideo(const VideoOptions& o) {
    VideoPlan plan;
    plan.ori = ParseOrientation(o.orient);
    plan.crop = CheckCropPadChannels(o.crop, o.pad, o.gray, o.bgr);
    if (o.every < 1) {
        throw ToolError("--every " + std::to_string(o.every) + " is not 1 or more", kExitUsage);
    }
    if (o.shard < 1) {
        throw ToolError("--shard " + std::to_string(o.shard) + " is not 1 or more", kExitUsage);
    }
    plan.range = ParseFrameRange(o.frames);
    const TensorTarget& target = plan.target =
        ParseTensorSpec(o.tensor.empty() ? (o.gray ? "1x256x256" : "3x256x256") : o.tensor,
                        o.gray);
    // A shard is held in memory until it is written.
    const uint64_t shard_bytes = static_cast<uint64_t>(target.w) * target.h * target.c *
                                 static_cast<uint64_t>(o.shard);
    if (shard_bytes > kMaxShardBytes) {
        throw ToolError("--shard " + std::to_string(o.shard) + " of " + o.tensor +
                            " tensors holds more than 2 GiB; use fewer frames a shard",
                        kExitUsage);
    }
    quvas::kit::TensorOptions& t = plan.tensor_options;
    ApplyLetterbox(o.letterbox, o.align, t);
    plan.letterbox = o.letterbox >= 0;
    t.width = target.w;
    t.height = target.h;
    t.gray = target.gray;
    t.to_bgr = o.bgr;
    if (!plan.crop.empty()) {
        t.crop_x = plan.crop[0], t.crop_y = plan.crop[1];
        t.crop_w = plan.crop[2], t.crop_h = plan.crop[3];
    }
    t.pad_value = static_cast<uint8_t>(o.pad);

    VideoReader reader(o.in);
    const bool made = MakeDirectory(o.out_dir);
    try {
        ConvertVideo(o, plan, reader);
    } catch (...) {
        // A failed run leaves no trace: a directory made for it goes too
        // (with the shards it was preparing).
        if (made) {
            DiscardOutputs();
            ::rmdir(o.out_dir.c_str());
        }
        throw;
    }
}

void ConvertVideo(const VideoOptions& o, const VideoPlan& plan, VideoReader& reader) {
    const TensorTarget& target = plan.target;
    const FrameRange& range = plan.range;
    quvas::runtime::DeviceCPU device;
    quvas::runtime::TensorPtr tensor = MakeOutputTensor(device, target);
    ShardWriter shards(o.out_dir, target, o.shard);

    // The bar counts the frames to keep, where the file says how many it has.
    const long declared = reader.DeclaredFrames();
    const long last = declared > 0 ? std::min(declared, range.end) : range.end;
    const long expected = declared > 0 && last > range.first
                              ? (last - range.first + o.every - 1) / o.every
                              : 0;
    Progress progress("video", expected);

    std::vector<double> decode_ms, convert_ms;
    long kept = 0;
    VideoFrame frame;
    for (;;) {
        Stopwatch decode;
        if (!reader.Next(frame)) break;
        decode_ms.push_back(decode.Seconds() * 1e3);
        const bool last = frame.number + 1 >= range.end;
        if (frame.number < range.first || (frame.number - range.first) % o.every != 0) {
            if (last) break;
            continue;
        }
        const quvas::kit::FrameView view = VideoFrameView(frame, plan.ori);
        Stopwatch convert;
        if (plan.letterbox) {
            // Planar bytes, packed: the tensor's own layout (H x W x 1 for
            // gray holds the same bytes as 1 x H x W).
            quvas::kit::TensorBuffer buf;
            buf.data = tensor->data();
            if (!quvas::kit::QV_OnePass_Convert_FrameView_To_Tensor(view, plan.tensor_options,
                                                                    buf, nullptr)) {
                CheckLibrary("the library refused the conversion");
                throw ToolError("the library refused the conversion", kExitLibrary);
            }
        } else {
            ConvertView(view, target, o.bgr, plan.crop, static_cast<unsigned char>(o.pad),
                        tensor);
        }
        convert_ms.push_back(convert.Seconds() * 1e3);
        shards.Add(tensor->data(), frame);
        progress.Step(++kept);
        // Nothing after B - 1 is decoded.
        if (last) break;
    }
    if (kept == 0) {
        throw ToolError("video '" + o.in + "' has no frame in --frames " +
                            (o.frames.empty() ? std::string(":") : o.frames),
                        kExitInput);
    }
    shards.Finish();
    std::printf("video: %ld frames to %ld shard(s) in '%s' (%ld decoded); median per frame: "
                "decode %.3f ms, convert %.3f ms\n",
                kept, shards.shards(), o.out_dir.c_str(), static_cast<long>(decode_ms.size()),
                Median(decode_ms), Median(convert_ms));
}

}  // namespace

void AddVideoCommand(CLI::App& app) {
    auto opts = std::make_shared<VideoOptions>();
    CLI::App* cmd = app.add_subcommand(
        "video", "Turn the frames of a video file into network input tensors (.npy shards)");
    cmd->add_option("IN", opts->in, "Input video file (any container and codec FFmpeg decodes)")
        ->required();
    cmd->add_option("OUT_DIR", opts->out_dir,
                    "Output directory (made if missing): frames_00000.npy, ... of N x C x H x W "
                    "uint8, and index.csv (shard,row,frame,seconds), all written only when "
                    "the whole video was read")
        ->required();
    cmd->add_option("--tensor", opts->tensor, "Tensor shape CxHxW (3x256x256; 1xHxW with --gray)");
    cmd->add_option("--orient", opts->orient,
                    "Orientation of the frames, undone by the conversion: a number or names "
                    "joined by '|' (upright, rotate90r, rotate90l, rotate180, flipv, mirror, "
                    "box_rotate180)");
    cmd->add_option("--crop", opts->crop, "x,y,w,h region of the upright view, in pixels");
    cmd->add_option("--frames", opts->frames,
                    "A:B: frame numbers A <= n < B (counted from 0, B left out, as a Python "
                    "slice; either side may be empty); all frames by default");
    cmd->add_option("--every", opts->every, "Keep every N-th frame of --frames, from A (1)");
    cmd->add_option("--shard", opts->shard, "Frames per .npy shard (256)");
    cmd->add_flag("--bgr", opts->bgr, "Planes in B,G,R order");
    cmd->add_flag("--gray", opts->gray, "One gray plane");
    cmd->add_option("--pad", opts->pad, "Value 0..255 of crop pixels outside the frame (0)");
    AddLetterboxOptions(cmd, &opts->letterbox, &opts->align, "");
    cmd->callback([opts] { RunVideo(*opts); });
}

}  // namespace qvntool
