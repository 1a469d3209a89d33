// main.cpp - people counted and followed in a video: the kit's loop
// (people_loop) with OpenCV's HOG people detector plugged in.
//
//   people_tracking IN OUT_DIR [--frames A:B] [--every N] [--rotate 90]
//                   [--dump-tensors] [--size WxH]
//
// writes OUT_DIR/tracks.jsonl, OUT_DIR/people.mp4 (the kept frames with the
// tracks drawn), OUT_DIR/people.png (the first frame with the most people)
// and OUT_DIR/timing.md (the per-stage table, also printed).
#include "annotate.hpp"
#include "atomic_output.hpp"
#include "error.hpp"
#include "people_loop.hpp"

#include <opencv2/core.hpp>
#include <opencv2/objdetect.hpp>

#include <CLI/CLI.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

namespace {

// The default people detector (a 64 x 128 window over HOG features, linear
// SVM) at scales 1.1 apart, on the three B, G, R planes the loop hands it.
// Its input is the frame letterboxed to width x height: 960 x 720 for the
// 768 x 576 footage, so that the people far away still fill the window.
class HogDetector : public people::Detector {
public:
    HogDetector(int width, int height) : width_(width), height_(height) {
        hog_.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector());
    }
    int InputWidth() const override { return width_; }
    int InputHeight() const override { return height_; }
    bool Gray() const override { return false; }

    std::vector<people::Detection> Detect(const uint8_t* planes) override {
        // OpenCV takes interleaved pixels: part of the detector's cost.
        const size_t plane = static_cast<size_t>(width_) * height_;
        std::vector<cv::Mat> bgr;
        for (int c = 0; c < 3; ++c) {
            bgr.emplace_back(height_, width_, CV_8UC1, const_cast<uint8_t*>(planes + c * plane));
        }
        cv::merge(bgr, image_);
        std::vector<cv::Rect> rects;
        std::vector<double> weights;
        hog_.detectMultiScale(image_, rects, weights, 0.0, cv::Size(8, 8), cv::Size(8, 8), 1.1,
                              2.0);
        std::vector<people::Detection> out;
        for (size_t i = 0; i < rects.size(); ++i) {
            const cv::Rect& r = rects[i];
            out.push_back({static_cast<float>(r.x), static_cast<float>(r.y),
                           static_cast<float>(r.width), static_cast<float>(r.height),
                           i < weights.size() ? static_cast<float>(weights[i]) : 0.f});
        }
        return out;
    }

private:
    int width_, height_;
    cv::HOGDescriptor hog_;
    cv::Mat image_;
};

void MakeDirectory(const std::string& dir) {
    if (::mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
        throw qvntool::ToolError("cannot create '" + dir + "': " + std::strerror(errno),
                                 qvntool::kExitOutput);
    }
}

void ParseFrames(const std::string& text, people::LoopOptions& o) {
    const size_t colon = text.find(':');
    try {
        if (colon == std::string::npos) throw std::invalid_argument(text);
        const std::string a = text.substr(0, colon), b = text.substr(colon + 1);
        if (!a.empty()) o.first = std::stol(a);
        if (!b.empty()) o.end = std::stol(b);
    } catch (const std::exception&) {
        throw qvntool::ToolError("--frames '" + text + "' is not A:B", qvntool::kExitUsage);
    }
}

struct Args {
    std::string in, out, frames, size = "960x720";
    long every = 1;
    int rotate = 0, clip_fps = 5;
    bool dump = false;
};

int Run(const Args& a) {
    people::LoopOptions o;
    if (!a.frames.empty()) ParseFrames(a.frames, o);
    o.every = a.every;
    o.rotate = a.rotate;
    int w = 0, h = 0;
    if (std::sscanf(a.size.c_str(), "%dx%d", &w, &h) != 2 || w < 64 || h < 128) {
        throw qvntool::ToolError("--size '" + a.size + "' is not WxH of at least 64x128",
                                 qvntool::kExitUsage);
    }
    MakeDirectory(a.out);
    if (a.dump) {
        o.dump_dir = a.out + "/tensors";
        MakeDirectory(o.dump_dir);
    }
    cv::setNumThreads(1);
    HogDetector detector(w, h);
    std::ofstream jsonl(a.out + "/tracks.jsonl", std::ios::trunc);
    std::unique_ptr<people::ClipWriter> clip;
    people::Annotator annotator, best;
    size_t best_count = 0;
    bool have_best = false;
    std::vector<int> ids;
    const auto sink = [&](const people::FrameResult& r, const qvntool::VideoFrame& frame) {
        jsonl << people::TrackLine(r);
        const qvntool::VideoFrame& drawn = annotator.Draw(frame, r.tracks);
        if (!clip) {
            clip = std::make_unique<people::ClipWriter>(a.out + "/people.mp4", "mpeg4",
                                                        frame.width, frame.height,
                                                        a.clip_fps);
        }
        clip->Write(drawn);
        if (!have_best || r.tracks.size() > best_count) {
            best.Draw(frame, r.tracks);
            best_count = r.tracks.size();
            have_best = true;
        }
        for (const people::TrackBox& b : r.tracks) {
            if (std::find(ids.begin(), ids.end(), b.id) == ids.end()) ids.push_back(b.id);
        }
    };
    people::StageTimes t;
    try {
        t = people::RunLoop(a.in, o, detector, sink);
    } catch (const qvntool::ToolError&) {
        // A video cut short: the frames before the damage stay playable.
        if (clip) clip->Finish();
        throw;
    }
    if (clip) clip->Finish();
    jsonl.close();
    if (!jsonl) throw qvntool::ToolError("cannot write tracks.jsonl", qvntool::kExitOutput);
    if (have_best) {
        people::WriteFramePng(a.out + "/people.png", best.frame());
        qvntool::CommitOutputs();
    }
    char note[200];
    std::snprintf(note, sizeof note,
                  "Detector input %dx%d (letterboxed, B,G,R planes); %zu people followed, at "
                  "most %zu in one frame.",
                  w, h, ids.size(), best_count);
    const std::string table = people::TimingTable(t, note);
    std::ofstream(a.out + "/timing.md", std::ios::trunc) << table;
    std::printf("%s", table.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"People counted and followed in a video with the kit and OpenCV's HOG"};
    Args a;
    app.add_option("IN", a.in, "Video file")->required();
    app.add_option("OUT_DIR", a.out, "Output directory (made if missing)")->required();
    app.add_option("--frames", a.frames, "A:B: frames A <= n < B (all)");
    app.add_option("--every", a.every, "Keep every N-th frame from A (1)");
    app.add_option("--rotate", a.rotate,
                   "Present each frame turned 90 or 270 degrees clockwise, as a sideways "
                   "sensor delivers it; the kit turns it back and re-orients the results (0)");
    app.add_option("--size", a.size, "Detector input WxH (960x720)");
    app.add_option("--clip-fps", a.clip_fps, "Frame rate of people.mp4 (5)");
    app.add_flag("--dump-tensors", a.dump,
                 "Write each tensor handed to the detector to OUT_DIR/tensors/");
    CLI11_PARSE(app, argc, argv);
    try {
        return Run(a);
    } catch (const qvntool::ToolError& e) {
        std::fprintf(stderr, "people_tracking: %s\n", e.what());
        return e.code();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "people_tracking: %s\n", e.what());
        return 1;
    }
}
