// cmd_demo.cpp - `qvn-kit demo [OUTDIR]`: the road of one frame through a
// detector that uses the kit, on built-in inputs, with a PNG of every step
// and a report of what was done and how long each step took.
//
// 1. A test chart (colour patches, an arrow pointing up, a disc, a
//    triangle, a gray ramp) is drawn upright, turned a quarter turn
//    clockwise with QVN_Clockwise_Rotate_Image_CPU and stored as an NV21
//    frame whose orientation says so (rotate90r): what a sideways camera
//    delivers.
// 2. Is_Valid_QVN_Image_For_CPU checks the frame.
// 3. The frame converter turns it upright into a 3x256x256 tensor.
// 4. Synthetic keypoint heatmaps (peaks on the arrow tip, the disc and the
//    triangle) are decoded with SoftArgMax.
// 5. A synthetic noisy box track is smoothed with the Kalman tracker.
// 6. The upright results are turned back into the frame's orientation with
//    QVN_BodyFrameDataArr_Result_Rotate and QVN_Rect2D_Result_Rotate and
//    drawn on the frame.
// The drawing of the chart and of result markers is the demo's own test
// content; every conversion is the kit's.
#include "commands.hpp"
#include "common.hpp"
#include "console.hpp"
#include "csv.hpp"
#include "frames.hpp"
#include "image_io.hpp"
#include "preprocess.hpp"
#include "svg.hpp"

#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <CLI/CLI.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace qvntool {
namespace {

struct Rgb {
    uint8_t r, g, b;
};

void Put(Picture& p, int x, int y, Rgb c) {
    if (x < 0 || y < 0 || x >= p.width || y >= p.height) return;
    uint8_t* px = &p.pixels[(static_cast<size_t>(y) * p.width + x) * p.channels];
    px[0] = c.r;
    px[1] = c.g;
    px[2] = c.b;
}

void FillRect(Picture& p, int x0, int y0, int x1, int y1, Rgb c) {
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x) Put(p, x, y, c);
}

// Is (px, py) inside the triangle a, b, c (either winding)?
bool InTriangle(float px, float py, float ax, float ay, float bx, float by, float cx, float cy) {
    auto side = [](float x0, float y0, float x1, float y1, float x, float y) {
        return (x1 - x0) * (y - y0) - (y1 - y0) * (x - x0);
    };
    float d1 = side(ax, ay, bx, by, px, py), d2 = side(bx, by, cx, cy, px, py),
          d3 = side(cx, cy, ax, ay, px, py);
    bool neg = d1 < 0 || d2 < 0 || d3 < 0, pos = d1 > 0 || d2 > 0 || d3 > 0;
    return !(neg && pos);
}

// Key points of the chart, normalised to the upright view.
const float kArrowTip[2] = {0.5f, 0.22f};
const float kDisc[2] = {0.2f, 0.55f};
const float kTriangle[2] = {0.8f, 0.58f};

Picture DrawChart(int w, int h) {
    Picture p(w, h, 3);
    FillRect(p, 0, 0, w, h, Rgb{40, 44, 52});
    const Rgb patches[6] = {{220, 40, 40},  {40, 180, 60},  {40, 80, 220},
                            {40, 200, 210}, {210, 50, 190}, {230, 210, 40}};
    int pw = w / 6;
    for (int i = 0; i < 6; ++i) FillRect(p, i * pw + 2, 2, (i + 1) * pw - 2, h / 8, patches[i]);
    for (int x = 0; x < w; ++x) {
        uint8_t v = static_cast<uint8_t>(x * 255 / (w - 1));
        FillRect(p, x, h - h / 10, x + 1, h - 2, Rgb{v, v, v});
    }
    // Arrow: a shaft and a head pointing to the top of the upright view.
    float tipx = kArrowTip[0] * w, tipy = kArrowTip[1] * h;
    float head = 0.16f * h;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float fx = x + 0.5f, fy = y + 0.5f;
            if (InTriangle(fx, fy, tipx, tipy, tipx - head * 0.8f, tipy + head,
                           tipx + head * 0.8f, tipy + head))
                Put(p, x, y, Rgb{245, 245, 245});
            if (std::fabs(fx - tipx) < 0.035f * w && fy >= tipy + head && fy < 0.82f * h)
                Put(p, x, y, Rgb{245, 245, 245});
            float dx = fx - kDisc[0] * w, dy = fy - kDisc[1] * h;
            if (dx * dx + dy * dy < (0.11f * h) * (0.11f * h)) Put(p, x, y, Rgb{250, 140, 30});
            float tx = kTriangle[0] * w, ty = kTriangle[1] * h, r = 0.13f * h;
            if (InTriangle(fx, fy, tx, ty - r, tx - r, ty + r * 0.7f, tx + r, ty + r * 0.7f))
                Put(p, x, y, Rgb{150, 80, 220});
        }
    return p;
}

void DrawBox(Picture& p, const QVN_Rect2D& r, Rgb c) {
    int x0 = static_cast<int>(std::lround(r.x0 * p.width)),
        x1 = static_cast<int>(std::lround(r.x1 * p.width));
    int y0 = static_cast<int>(std::lround(r.y0 * p.height)),
        y1 = static_cast<int>(std::lround(r.y1 * p.height));
    for (int t = 0; t < 2; ++t) {
        for (int x = x0; x <= x1; ++x) {
            Put(p, x, y0 + t, c);
            Put(p, x, y1 - t, c);
        }
        for (int y = y0; y <= y1; ++y) {
            Put(p, x0 + t, y, c);
            Put(p, x1 - t, y, c);
        }
    }
}

void DrawCross(Picture& p, float u, float v, Rgb c) {
    int x = static_cast<int>(std::lround(u * (p.width - 1)));
    int y = static_cast<int>(std::lround(v * (p.height - 1)));
    for (int d = -6; d <= 6; ++d)
        for (int t = -1; t <= 1; ++t) {
            Put(p, x + d, y + t, c);
            Put(p, x + t, y + d, c);
        }
}

std::string Ms(double seconds) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%8.3f ms", seconds * 1e3);
    return buf;
}

std::string F(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.4f", v);
    return buf;
}

// The demo's steps in order; each adds its lines to the report and writes its
// files, and hands the next step what it made.
class Demo {
public:
    explicit Demo(const std::string& dir) : dir_(dir) {}

    void Run() {
        PrepareFolder();
        MakeSidewaysFrame();
        ValidateFrame();
        ConvertUpright();
        DecodeHeatmaps();
        SmoothBoxTrack();
        TurnResultsIntoTheFrame();
        report_ += "\nTimes are wall-clock times of one run on this machine.\n";
        WriteTextAtomically(At("report.txt"), report_);
        std::printf("%s", report_.c_str());
        std::printf("\nwrote the demo files to %s\n", dir_.c_str());
    }

private:
    static constexpr int kW = 320, kH = 240;
    static constexpr int kPoints = 3, kHeatH = 64, kHeatW = 64;

    std::string At(const char* name) const { return dir_ + "/" + name; }
    void Step(const std::string& what, double seconds) {
        report_ += Ms(seconds) + "  " + what + "\n";
    }

    void PrepareFolder() {
        if (::mkdir(dir_.c_str(), 0755) != 0 && errno != EEXIST) {
            throw ToolError("cannot create directory '" + dir_ + "': " + std::strerror(errno),
                            kExitOutput);
        }
        struct stat st{};
        if (::stat(dir_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            throw ToolError("'" + dir_ + "' is not a directory", kExitOutput);
        }
    }

    // 1. The chart, upright, then as the sideways camera stores it.
    void MakeSidewaysFrame() {
        Stopwatch t1;
        Picture chart = DrawChart(kW, kH);
        double draw_s = t1.Seconds();
        WritePng(At("01_chart_upright.png"), chart);
        Step("drew the upright " + std::to_string(kW) + "x" + std::to_string(kH) +
                 " test chart (01_chart_upright.png)",
             draw_s);

        Stopwatch t2;
        QVN_Image upright = PictureImage(chart);
        Picture turned(kH, kW, 3);
        QVN_Image turned_img = upright;
        turned_img.data = turned.pixels.data();
        if (QVN_Clockwise_Rotate_Image_CPU(&upright, &turned_img, 90) != 0) {
            throw ToolError("QVN_Clockwise_Rotate_Image_CPU failed", kExitLibrary);
        }
        turned.width = turned_img.width;
        turned.height = turned_img.height;
        PictureToFrame(turned, QVN_PIX_FMT_YUV420SP_D, QVN_ORIENT_FMT_ROTATE_90R, frame_);
        double turn_s = t2.Seconds();
        frame_view_ = FrameToPicture(frame_.image);
        WritePng(At("02_frame_nv21_rotate90r.png"), frame_view_);
        Step("turned it a quarter turn clockwise (QVN_Clockwise_Rotate_Image_CPU) and stored it "
             "as a " +
                 std::to_string(frame_.image.width) + "x" + std::to_string(frame_.image.height) +
                 " NV21 frame, orientation rotate90r (02_frame_nv21_rotate90r.png)",
             turn_s);
    }

    // 2. Validation.
    void ValidateFrame() {
        Stopwatch t3;
        bool valid = quvas::kit::Is_Valid_QVN_Image_For_CPU(&frame_.image, true);
        Step(std::string("Is_Valid_QVN_Image_For_CPU: ") + (valid ? "valid" : "INVALID"),
             t3.Seconds());
        if (!valid) throw ToolError("the library rejected the demo frame", kExitLibrary);
    }

    // 3. Upright tensor, by the step converter and again in one pass.
    void ConvertUpright() {
        quvas::runtime::DeviceCPU device;
        TensorTarget target{3, 256, 256, false};
        quvas::runtime::TensorPtr tensor = MakeOutputTensor(device, target);
        // Each converter is timed on its second call, as on every frame of a
        // stream: the first one of a process also sets up storage it reuses.
        using Converter = void (*)(const QVN_Image*, quvas::runtime::TensorPtr&, const bool&,
                                   const int&, const int&, const int&, const int&,
                                   const unsigned char&);
        auto second_call = [&](Converter convert, quvas::runtime::TensorPtr& out) {
            convert(&frame_.image, out, false, 0, 0, 0, 0, 0);
            Stopwatch t;
            convert(&frame_.image, out, false, 0, 0, 0, 0, 0);
            return t.Seconds();
        };
        const double convert_s = second_call(
            &quvas::kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU,
            tensor);
        tensor_view_ = TensorToPicture(*tensor);
        WritePng(At("03_tensor_3x256x256.png"), tensor_view_);
        Step("converted the frame upright into a 3x256x256 RGB tensor "
             "(QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU, "
             "03_tensor_3x256x256.png)",
             convert_s);
        // The one-pass converter: the same bytes without the intermediate tensors.
        quvas::runtime::TensorPtr fast = MakeOutputTensor(device, target);
        const double fast_s = second_call(
            &quvas::kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU,
            fast);
        const bool same = fast->byte_size() == tensor->byte_size() &&
                          std::memcmp(fast->data(), tensor->data(), tensor->byte_size()) == 0;
        Step(std::string("converted it again in one pass "
                         "(QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU): ") +
                 (same ? "the same bytes" : "DIFFERENT BYTES"),
             fast_s);
        if (!same) throw ToolError("the one-pass converter gave other bytes", kExitLibrary);
    }

    // 4. Heatmaps with a peak on each key point, as a network would give.
    void DecodeHeatmaps() {
        const int hc = kPoints, hh = kHeatH, hw = kHeatW;
        const float* points[hc] = {kArrowTip, kDisc, kTriangle};
        const char* names[hc] = {"arrow tip", "disc", "triangle"};
        std::vector<float> heat(static_cast<size_t>(hc) * hh * hw);
        for (int c = 0; c < hc; ++c)
            for (int r = 0; r < hh; ++r)
                for (int k = 0; k < hw; ++k) {
                    float dx = k - points[c][0] * (hw - 1), dy = r - points[c][1] * (hh - 1);
                    heat[(static_cast<size_t>(c) * hh + r) * hw + k] =
                        std::exp(-(dx * dx + dy * dy) / (2.f * 1.5f * 1.5f));
                }
        std::vector<unsigned char> heat_bytes(heat.size());
        quvas::kit::float01toUchar0255SSE(heat.data(), heat_bytes.data(),
                                          static_cast<int>(heat.size()));
        Picture heat_view(hw, hh, 3);
        {
            QVN_Image src{}, dst{};
            src.width = dst.width = hw;
            src.height = dst.height = hh;
            src.data = heat_bytes.data();
            dst.data = heat_view.pixels.data();
            quvas::kit::post_getRGB_HWC_from_RGB_CHW(&src, &dst);
        }
        WritePng(At("04_heatmaps.png"), heat_view);
        const float beta = 40.f;
        quvas::kit::SoftArgMax decoder(hw, hh, hc, beta);
        Stopwatch t5;
        decoder.Decode_WithConfidenceNoSqrt_CHW_F32(heat.data(), hc, hh, hw);
        double decode_s = t5.Seconds();
        Step("decoded 3 synthetic 64x64 heatmaps with SoftArgMax, beta 40 "
             "(04_heatmaps.png: one heatmap per colour channel, float01toUchar0255SSE)",
             decode_s);
        // One body record carries the key points (15 KB: kept off the stack).
        bodies_ = std::make_unique<QVN_BodyFrameDataArr>();
        bodies_->count = 1;
        bodies_->bodies[0].landmarksNum = hc;
        for (int c = 0; c < hc; ++c) {
            float u = (decoder.x_out[c] + 1.f) * 0.5f, v = (decoder.y_out[c] + 1.f) * 0.5f;
            bodies_->bodies[0].landmarks[c] = QVN_Point2D{u, v};
            report_ += "           " + std::string(names[c]) + ": placed (" + F(points[c][0]) +
                       ", " + F(points[c][1]) + "), decoded (" + F(u) + ", " + F(v) +
                       "), spread " + F(decoder.confidence[c]) + "\n";
        }
    }

    // 5. A noisy box drifting right and down, smoothed; the results drawn in
    // the upright view, on the tensor picture.
    void SmoothBoxTrack() {
        std::vector<BoxRow> raw, smooth;
        uint32_t seed = 12345;
        auto noise = [&seed] {
            seed = seed * 1664525u + 1013904223u;
            return (static_cast<float>(seed >> 8) / 16777216.f - 0.5f) * 0.03f;
        };
        for (int f = 0; f < 40; ++f) {
            BoxRow r;
            r.frame = f;
            r.x = 0.15f + 0.012f * f + noise();
            r.y = 0.30f + 0.004f * f + noise();
            r.w = 0.22f + noise() * 0.5f;
            r.h = 0.28f + noise() * 0.5f;
            raw.push_back(r);
        }
        auto params = std::make_shared<quvas::kit::QVTBoxTrackerParams>();
        *params = quvas::kit::QVTBoxTrackerParams{};
        params->frequency = 30.f;
        params->process_noise = 1e-2f;
        params->measurement_noise = 1.f;
        quvas::kit::QVTBoxKalmanTracker tracker(kW, kH, params);
        Stopwatch t6;
        tracker.init(raw[0].x, raw[0].y, raw[0].w, raw[0].h);
        for (const BoxRow& r : raw) {
            BoxRow s = r;
            tracker.track(&s.x, &s.y, &s.w, &s.h);
            smooth.push_back(s);
        }
        double track_s = t6.Seconds();
        WriteTextAtomically(At("05_track.csv"), BoxCsvText(smooth));
        WriteTextAtomically(At("05_track.svg"), TrackSvg(raw, smooth, kW, kH, "Kalman"));
        Step("smoothed a synthetic 40-frame box track with QVTBoxKalmanTracker "
             "(05_track.csv, 05_track.svg)",
             track_s);

        const BoxRow& last = smooth.back();
        box_ = QVN_Rect2D{last.x, last.y, last.x + last.w, last.y + last.h};
        bodies_->bodies[0].rect = box_;
        Picture upright_view = tensor_view_;
        DrawResults(upright_view, box_);
        WritePng(At("05_results_upright.png"), upright_view);
    }

    // 6. Back into the frame's orientation: upright (x, y) lies at (1 - y, x)
    // of a rotate90r frame, the clockwise quarter turn of the results.
    void TurnResultsIntoTheFrame() {
        Stopwatch t7;
        int32_t s1 = QVN_BodyFrameDataArr_Result_Rotate(bodies_.get(), 90);
        QVN_Rect2D frame_box = box_;
        int32_t s2 = QVN_Rect2D_Result_Rotate(&frame_box, 90);
        double back_s = t7.Seconds();
        if (s1 != 0 || s2 != 0) throw ToolError("result rotation failed", kExitLibrary);
        Picture on_frame = frame_view_;
        DrawResults(on_frame, frame_box);
        WritePng(At("06_results_on_frame.png"), on_frame);
        Step("turned the key points and the box into the frame's orientation "
             "(QVN_BodyFrameDataArr_Result_Rotate, QVN_Rect2D_Result_Rotate, "
             "06_results_on_frame.png)",
             back_s);
        report_ += "           box upright (" + F(box_.x0) + ", " + F(box_.y0) + ", " +
                   F(box_.x1) + ", " + F(box_.y1) + ") -> in the frame (" + F(frame_box.x0) +
                   ", " + F(frame_box.y0) + ", " + F(frame_box.x1) + ", " + F(frame_box.y1) +
                   ")\n";
    }

    // The box in yellow and the key points of the body record as red crosses.
    void DrawResults(Picture& p, const QVN_Rect2D& box) const {
        DrawBox(p, box, Rgb{255, 255, 0});
        for (int c = 0; c < kPoints; ++c) {
            DrawCross(p, bodies_->bodies[0].landmarks[c].x, bodies_->bodies[0].landmarks[c].y,
                      Rgb{255, 0, 0});
        }
    }

    std::string dir_;
    std::string report_ = "qvn-kit demo: the road of one frame\n\n";
    Frame frame_;
    Picture frame_view_, tensor_view_;
    std::unique_ptr<QVN_BodyFrameDataArr> bodies_;
    QVN_Rect2D box_{};
};

}  // namespace

void AddDemoCommand(CLI::App& app) {
    auto dir = std::make_shared<std::string>("demo-out");
    CLI::App* cmd = app.add_subcommand(
        "demo", "Run the road of one frame on a built-in test chart and write every step");
    cmd->add_option("OUTDIR", *dir, "Folder for the PNGs and report (demo-out)");
    cmd->callback([dir] { Demo(*dir).Run(); });
}

}  // namespace qvntool
