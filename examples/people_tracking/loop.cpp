// loop.cpp - one pass over a video: decode, present (optionally turned as a
// sideways sensor delivers it), convert with the kit, detect, map the boxes
// back, track, fill the object-count record and turn it for display.
#include "people_loop.hpp"

#include "atomic_output.hpp"
#include "error.hpp"
#include "npy.hpp"
#include "plane_views.hpp"

#include <libyuv/rotate.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace people {

namespace kit = quvas::kit;
using qvntool::ToolError;
using qvntool::VideoFrame;

namespace {

using Clock = std::chrono::steady_clock;

double Micros(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::micro>(b - a).count();
}

double Median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 != 0 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// A decoded 4:2:0 frame turned a quarter clockwise (90) or counter-clockwise
// (270), plane by plane, into buffers of its own.
class TurnedFrame {
public:
    const VideoFrame& Turn(const VideoFrame& in, int degrees) {
        if (in.layout != qvntool::VideoLayout::kI420) {
            throw ToolError("a turned presentation needs three-plane 4:2:0 frames; this "
                            "decoder gives two-plane ones",
                            qvntool::kExitInput);
        }
        out_ = in;
        out_.width = in.height;
        out_.height = in.width;
        const int cw = (in.width + 1) / 2, ch = (in.height + 1) / 2;
        // The turned planes are as wide as the frame was high.
        for (int p = 0; p < 3; ++p) {
            const int w = p ? ch : in.height, h = p ? cw : in.width;
            planes_[p].resize(static_cast<size_t>(w) * h);
            out_.plane[p] = planes_[p].data();
            out_.stride[p] = w;
        }
        const int r = libyuv::I420Rotate(
            in.plane[0], static_cast<int>(in.stride[0]), in.plane[1],
            static_cast<int>(in.stride[1]), in.plane[2], static_cast<int>(in.stride[2]),
            planes_[0].data(), out_.width, planes_[1].data(), ch, planes_[2].data(), ch, in.width,
            in.height, degrees == 90 ? libyuv::kRotate90 : libyuv::kRotate270);
        if (r != 0) throw ToolError("libyuv could not turn the frame", qvntool::kExitLibrary);
        return out_;
    }

private:
    VideoFrame out_;
    std::vector<uint8_t> planes_[3];
};

void CheckOptions(const LoopOptions& o, const Detector& d) {
    if (o.every < 1 || o.first < 0 || o.end <= o.first) {
        throw ToolError("the frame range selects no frame (first " + std::to_string(o.first) +
                            ", end " + std::to_string(o.end) + ", every " +
                            std::to_string(o.every) + ")",
                        qvntool::kExitUsage);
    }
    if (o.rotate != 0 && o.rotate != 90 && o.rotate != 270) {
        throw ToolError("--rotate " + std::to_string(o.rotate) + " is not 0, 90 or 270",
                        qvntool::kExitUsage);
    }
    // Gray tensors keep the frame's turn: the detector would see people
    // lying down.
    if (o.rotate != 0 && d.Gray()) {
        throw ToolError("a turned presentation needs a colour detector: gray tensors are "
                        "not turned back",
                        qvntool::kExitUsage);
    }
    if (d.InputWidth() < 2 || d.InputHeight() < 2) {
        throw ToolError("the detector's input size is below 2x2", qvntool::kExitUsage);
    }
}

StageTimes Loop(const std::string& path, const LoopOptions& o, Detector& detector,
                const FrameSink& sink) {
    CheckOptions(o, detector);
    qvntool::VideoReader reader(path);

    kit::TensorOptions topt;
    topt.width = detector.InputWidth();
    topt.height = detector.InputHeight();
    topt.gray = detector.Gray();
    topt.to_bgr = true;
    topt.letterbox = o.letterbox;
    topt.letterbox_pad = o.letterbox_pad;
    const size_t channels = topt.gray ? 1 : 3;
    std::vector<uint8_t> tensor(channels * static_cast<size_t>(topt.width) * topt.height);
    kit::TensorBuffer buf;
    buf.data = tensor.data();

    // The sensor's turn, and the clockwise turn that brings results back.
    const uint32_t ori = o.rotate == 90    ? QVN_ORIENT_FMT_ROTATE_90R
                         : o.rotate == 270 ? QVN_ORIENT_FMT_ROTATE_90L
                                           : QVN_ORIENT_FMT_DEFAULT;
    const int back = o.rotate == 0 ? 0 : 360 - o.rotate;

    std::unique_ptr<TrackSet> tracks;
    TurnedFrame turned;
    std::vector<double> decode_us, convert_us, detect_us, track_us;
    std::vector<float> boxes;
    VideoFrame frame;
    for (;;) {
        const Clock::time_point t0 = Clock::now();
        if (!reader.Next(frame)) break;
        decode_us.push_back(Micros(t0, Clock::now()));
        const bool last = frame.number + 1 >= o.end;
        if (frame.number < o.first || (frame.number - o.first) % o.every != 0) {
            if (last) break;
            continue;
        }
        const VideoFrame& presented = o.rotate ? turned.Turn(frame, o.rotate) : frame;
        const kit::FrameView view = qvntool::VideoFrameView(presented, ori);

        FrameResult result;
        result.frame = frame.number;
        result.seconds = frame.seconds;
        result.has_time = frame.has_time;
        const Clock::time_point t1 = Clock::now();
        if (!kit::QV_OnePass_Convert_FrameView_To_Tensor(view, topt, buf, &result.transform)) {
            throw ToolError("the kit refused to convert frame " + std::to_string(frame.number) +
                                " of '" + path + "' (its log says why)",
                            qvntool::kExitLibrary);
        }
        const Clock::time_point t2 = Clock::now();
        if (!o.dump_dir.empty()) {
            char name[40];
            std::snprintf(name, sizeof name, "/tensor_%06ld.npy", frame.number);
            qvntool::WriteNpyU8(o.dump_dir + name,
                                {channels, static_cast<size_t>(topt.height),
                                 static_cast<size_t>(topt.width)},
                                tensor.data());
        }

        const Clock::time_point t3 = Clock::now();
        const std::vector<Detection> found = detector.Detect(tensor.data());
        const Clock::time_point t4 = Clock::now();

        // Tensor pixels -> the frame as presented (normalised), kept inside
        // the frame. A box that is not finite or has no area is dropped
        // here: no tracker ever sees it.
        boxes.clear();
        for (const Detection& d : found) {
            if (!std::isfinite(d.x) || !std::isfinite(d.y) || !std::isfinite(d.w) ||
                !std::isfinite(d.h) || !(d.w > 0) || !(d.h > 0)) {
                continue;
            }
            boxes.insert(boxes.end(), {d.x, d.y, d.w, d.h});
        }
        const size_t n = boxes.size() / 4;
        kit::TensorTransform_Boxes_To_Frame(result.transform, boxes.data(), boxes.data(), n);
        std::vector<QVN_Rect2D> rects;
        for (size_t i = 0; i < n; ++i) {
            const float* b = &boxes[4 * i];
            QVN_Rect2D r{std::max(b[0], 0.f), std::max(b[1], 0.f), std::min(b[0] + b[2], 1.f),
                         std::min(b[1] + b[3], 1.f)};
            // Wholly outside the frame: nothing left.
            if (!(r.x1 > r.x0 && r.y1 > r.y0)) continue;
            rects.push_back(r);
        }
        if (!tracks) {
            // One tracker step per kept frame: the model's time unit.
            tracks = std::make_unique<TrackSet>(presented.width, presented.height, 1.0f,
                                                o.rules);
        }
        const std::vector<TrackBox> seen = tracks->Update(rects);

        // The record an application receives, in the presented frame, then
        // turned for the upright display.
        QVN_ObjCountDataArr record{};
        record.count = static_cast<int32_t>(seen.size());
        if (!seen.empty()) {
            record.objRectArr =
                static_cast<QVN_Rect2D*>(std::malloc(seen.size() * sizeof(QVN_Rect2D)));
            if (!record.objRectArr) throw std::bad_alloc();
            for (size_t i = 0; i < seen.size(); ++i) record.objRectArr[i] = seen[i].box;
        }
        if (back != 0) {
            QVN_ObjCountDataArr_Result_Rotate(&record, back);
            for (QVN_Rect2D& r : rects) QVN_Rect2D_Result_Rotate(&r, back);
        }
        result.detections = std::move(rects);
        result.tracks.resize(seen.size());
        for (size_t i = 0; i < seen.size(); ++i) {
            result.tracks[i] = {seen[i].id, record.objRectArr[i]};
        }
        QVN_ObjCountDataArr_Free(&record);
        const Clock::time_point t5 = Clock::now();

        convert_us.push_back(Micros(t1, t2));
        detect_us.push_back(Micros(t3, t4));
        track_us.push_back(Micros(t4, t5));
        sink(result, frame);
        // Nothing after end - 1 is decoded.
        if (last) break;
    }
    if (convert_us.empty()) {
        throw ToolError("video '" + path + "' has no frame in the chosen range",
                        qvntool::kExitInput);
    }
    StageTimes t;
    t.decode = Median(decode_us);
    t.convert = Median(convert_us);
    t.detect = Median(detect_us);
    t.track = Median(track_us);
    t.frames = static_cast<long>(convert_us.size());
    t.decoded = static_cast<long>(decode_us.size());
    return t;
}

}  // namespace

StageTimes RunLoop(const std::string& path, const LoopOptions& o, Detector& detector,
                   const FrameSink& sink) {
    // The dumped tensors appear only when the whole run succeeded.
    try {
        const StageTimes t = Loop(path, o, detector, sink);
        qvntool::CommitOutputs();
        return t;
    } catch (...) {
        qvntool::DiscardOutputs();
        throw;
    }
}

std::string TimingTable(const StageTimes& t, const std::string& note) {
    char buf[1024];
    std::snprintf(buf, sizeof buf,
                  "| stage | µs per frame (median) |\n"
                  "|---|---:|\n"
                  "| decode (FFmpeg, per decoded frame) | %.0f |\n"
                  "| convert (kit, one pass) | %.0f |\n"
                  "| detect (HOG) | %.0f |\n"
                  "| track (kit: boxes back, Kalman trackers, record) | %.0f |\n"
                  "| total | %.0f |\n\n"
                  "The kit's share (convert + track over the total): %.2f %%. "
                  "%ld frames processed, %ld decoded.",
                  t.decode, t.convert, t.detect, t.track, t.Total(), 100.0 * t.KitShare(),
                  t.frames, t.decoded);
    std::string s = buf;
    if (!note.empty()) s += " " + note;
    return s + "\n";
}

std::string TrackLine(const FrameResult& r) {
    std::string s = "{\"frame\": " + std::to_string(r.frame) + ", \"time\": ";
    char num[160];
    if (r.has_time) {
        std::snprintf(num, sizeof num, "%.3f", r.seconds);
        s += num;
    } else {
        s += "null";
    }
    s += ", \"count\": " + std::to_string(r.tracks.size()) + ", \"tracks\": [";
    for (size_t i = 0; i < r.tracks.size(); ++i) {
        const QVN_Rect2D& b = r.tracks[i].box;
        std::snprintf(num, sizeof num, "%s{\"id\": %d, \"box\": [%.5f, %.5f, %.5f, %.5f]}",
                      i ? ", " : "", r.tracks[i].id, b.x0, b.y0, b.x1, b.y1);
        s += num;
    }
    return s + "]}\n";
}

}  // namespace people
