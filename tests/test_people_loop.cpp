// test_people_loop.cpp - the example's loop (decode -> kit tensor -> detector
// -> boxes back -> trackers -> record) on clips made here: bright rectangles
// moving over a textured background, encoded losslessly (ffv1), found in
// the tensor by a stand-in detector that thresholds it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "annotate.hpp"
#include "error.hpp"
#include "people_loop.hpp"
#include "tool_support.h"

namespace {

using people::Detection;
using people::FrameResult;
using qvntest::RunTool;
using qvntest::Slurp;

constexpr int kW = 320, kH = 240, kFrames = 30;

// A rectangle of the clip and its colour (Y, U, V).
struct Rect {
    int x, y, w, h;
    uint8_t luma = 235, u = 128, v = 128;
};

// The rectangles of frame f, painted in this order: A (blue) runs right and
// B (red) runs left across it, overlapping A's lower 28 rows, so they pass
// through each other mid-clip (at frame 15 B hides all of them);
// C (white) stands still; D (white) is there for frames 10..21 only.
// Every corner is even, so each 2x2 chroma block holds one colour.
std::vector<Rect> Scene(int f) {
    std::vector<Rect> r = {{20 + 8 * f, 40, 40, 60, 170, 220, 110},
                           {260 - 8 * f, 72, 40, 60, 170, 110, 220},
                           {250, 185, 30, 40}};
    if (f >= 10 && f < 22) r.push_back({100 + 2 * f, 190, 30, 40});
    return r;
}

// What a detector can see of each rectangle of frame f: the bounding box of
// its pixels left uncovered by those painted after it.
std::vector<Rect> Visible(int f) {
    const std::vector<Rect> scene = Scene(f);
    std::vector<int> owner(kW * kH, -1);
    for (size_t k = 0; k < scene.size(); ++k) {
        const Rect& r = scene[k];
        for (int j = r.y; j < r.y + r.h; ++j) std::fill_n(&owner[j * kW + r.x], r.w, int(k));
    }
    std::vector<std::array<int, 4>> edge(scene.size(), {kW, kH, 0, 0});  // x0, y0, x1, y1
    for (int p = 0; p < kW * kH; ++p) {
        if (owner[p] < 0) continue;
        std::array<int, 4>& e = edge[owner[p]];
        const int x = p % kW, y = p / kW;
        e = {std::min(e[0], x), std::min(e[1], y), std::max(e[2], x + 1), std::max(e[3], y + 1)};
    }
    std::vector<Rect> seen;
    for (const auto& e : edge) seen.push_back({e[0], e[1], e[2] - e[0], e[3] - e[1]});
    return seen;
}

// Writes the clip with the example's encoder; `with_rects` false:
// background only.
void MakeClip(const std::string& path, bool with_rects, const std::string& encoder) {
    people::ClipWriter clip(path, encoder, kW, kH, 10);
    std::vector<uint8_t> y(kW * kH), u(kW * kH / 4), v(kW * kH / 4);
    for (int f = 0; f < kFrames; ++f) {
        for (int j = 0; j < kH; ++j) {
            for (int i = 0; i < kW; ++i)
                y[j * kW + i] = static_cast<uint8_t>(40 + (i * 7 + j * 13) % 61);
        }
        std::fill(u.begin(), u.end(), 128);
        std::fill(v.begin(), v.end(), 128);
        for (const Rect& r : with_rects ? Scene(f) : std::vector<Rect>{}) {
            for (int j = r.y; j < r.y + r.h; ++j) std::fill_n(&y[j * kW + r.x], r.w, r.luma);
            for (int j = r.y / 2; j < (r.y + r.h) / 2; ++j) {
                std::fill_n(&u[j * kW / 2 + r.x / 2], r.w / 2, r.u);
                std::fill_n(&v[j * kW / 2 + r.x / 2], r.w / 2, r.v);
            }
        }
        const uint8_t* planes[3] = {y.data(), u.data(), v.data()};
        const ptrdiff_t strides[3] = {kW, kW / 2, kW / 2};
        clip.Write(planes, strides);
    }
    clip.Finish();
}

// Finds the 4-connected regions of one class in the tensor, left to right,
// and keeps every tensor it was handed. A pixel is part of a rectangle when
// its luma, formed back from B, G, R (gray: the value), passes 140: the
// background stays below it whatever chroma bleeds across an edge. Its
// class is blue, red or white by the sign of B - R. Regions under 3 pixels
// across are the blend where two colours meet, not rectangles. `junk`: adds
// boxes no tracker may see (NaN, infinite, empty).
class RectFinder : public people::Detector {
public:
    RectFinder(int w, int h, bool gray, bool junk = false)
        : w_(w), h_(h), gray_(gray), junk_(junk) {}
    int InputWidth() const override { return w_; }
    int InputHeight() const override { return h_; }
    bool Gray() const override { return gray_; }
    std::vector<Detection> Detect(const uint8_t* t) override {
        const int n = w_ * h_;
        handed.emplace_back(t, t + (gray_ ? 1 : 3) * n);
        std::vector<int> kind(n), seen(n, 0), stack;
        for (int p = 0; p < n; ++p) {
            if (gray_) {
                kind[p] = t[p] > 140;
                continue;
            }
            const int b = t[p], g = t[n + p], r = t[2 * n + p];
            kind[p] = (77 * r + 150 * g + 29 * b) >> 8 <= 140 ? 0 : b - r > 40 ? 1 : r - b > 40 ? 2 : 3;
        }
        std::vector<Detection> out;
        for (int start = 0; start < n; ++start) {
            if (seen[start] || kind[start] == 0) continue;
            const int k = kind[start];
            int x0 = w_, y0 = h_, x1 = -1, y1 = -1;
            stack.assign(1, start);
            seen[start] = 1;
            while (!stack.empty()) {
                const int p = stack.back(), x = p % w_, y = p / w_;
                stack.pop_back();
                x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y),
                y1 = std::max(y1, y);
                const int next[4] = {x > 0 ? p - 1 : -1, x + 1 < w_ ? p + 1 : -1,
                                     y > 0 ? p - w_ : -1, y + 1 < h_ ? p + w_ : -1};
                for (int q : next) {
                    if (q >= 0 && !seen[q] && kind[q] == k) seen[q] = 1, stack.push_back(q);
                }
            }
            if (x1 + 1 - x0 < 3 || y1 + 1 - y0 < 3) continue;
            out.push_back({float(x0), float(y0), float(x1 + 1 - x0), float(y1 + 1 - y0), 1.f});
        }
        std::sort(out.begin(), out.end(),
                  [](const Detection& a, const Detection& b) { return a.x < b.x; });
        if (junk_) {
            out.push_back({NAN, 10, 20, 20, 1});
            out.push_back({10, 10, INFINITY, 20, 1});
            out.push_back({30, 30, 0, 0, 1});
        }
        return out;
    }
    std::vector<std::vector<uint8_t>> handed;

private:
    int w_, h_;
    bool gray_, junk_;
};

struct Outcome {
    std::vector<FrameResult> frames;
    std::string error;
};

Outcome RunOn(const std::string& path, const people::LoopOptions& o, people::Detector& d) {
    Outcome out;
    try {
        people::RunLoop(path, o, d, [&](const FrameResult& r, const qvntool::VideoFrame&) {
            out.frames.push_back(r);
        });
    } catch (const qvntool::ToolError& e) {
        out.error = e.what();
    }
    return out;
}

float Iou(const QVN_Rect2D& a, const Rect& r) {
    const float bx0 = float(r.x) / kW, by0 = float(r.y) / kH;
    const float bx1 = float(r.x + r.w) / kW, by1 = float(r.y + r.h) / kH;
    const float w = std::min(a.x1, bx1) - std::max(a.x0, bx0),
                h = std::min(a.y1, by1) - std::max(a.y0, by0);
    if (w <= 0 || h <= 0) return 0;
    return w * h / ((a.x1 - a.x0) * (a.y1 - a.y0) + (bx1 - bx0) * (by1 - by0) - w * h);
}

class PeopleLoop : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        MakeClip(dir_->operator/("rects.avi"), true, "ffv1");
        // Lossy, in the container the example writes: every frame comes back.
        MakeClip(dir_->operator/("empty.mp4"), false, "mpeg4");
    }
    static void TearDownTestSuite() { dir_.reset(); }
    static std::string Clip(const std::string& name) { return *dir_ / name; }
    static inline std::unique_ptr<qvntest::ScratchDir> dir_ =
        std::make_unique<qvntest::ScratchDir>();
};

// Upright, letterboxed into 200 x 200 (the picture is 200 x 150 at y = 25):
// every mapped box lies on its rectangle within one tensor pixel; tracks are
// born on their min_hits-th detection, so the counts are 0 until then, 3
// after, and 4 once D has been seen as often and while it is there; each id
// stays on one rectangle while A and B pass through each other. Turned a quarter either way
// the re-oriented results are the upright ones, and boxes no tracker may
// see change nothing.
TEST_F(PeopleLoop, BoxesCountsAndIdsUprightAndTurned) {
    people::LoopOptions o;
    RectFinder upright_finder(200, 200, false);
    const Outcome up = RunOn(Clip("rects.avi"), o, upright_finder);
    ASSERT_EQ(up.error, "");
    ASSERT_EQ(up.frames.size(), size_t(kFrames));
    std::map<int, int> rect_of_id;
    for (int f = 0; f < kFrames; ++f) {
        const FrameResult& r = up.frames[f];
        const std::vector<Rect> truth = Visible(f);
        EXPECT_EQ(r.frame, f);
        ASSERT_EQ(r.detections.size(), truth.size()) << "frame " << f;
        // One tensor pixel, in normalised frame units.
        const float tx = 1.f / r.transform.picture_width, ty = 1.f / r.transform.picture_height;
        EXPECT_FLOAT_EQ(tx, 1.f / 200);
        EXPECT_FLOAT_EQ(ty, 1.f / 150);
        for (const QVN_Rect2D& d : r.detections) {
            const auto on = std::find_if(truth.begin(), truth.end(), [&](const Rect& t) {
                return std::abs(d.x0 - float(t.x) / kW) <= tx &&
                       std::abs(d.x1 - float(t.x + t.w) / kW) <= tx &&
                       std::abs(d.y0 - float(t.y) / kH) <= ty &&
                       std::abs(d.y1 - float(t.y + t.h) / kH) <= ty;
            });
            EXPECT_NE(on, truth.end()) << "frame " << f << " box " << d.x0 << "," << d.y0;
        }
        const int born = o.rules.min_hits - 1;  // frames after the first detection
        const size_t want = (f >= born ? 3 : 0) + (f >= 10 + born && f < 22 ? 1 : 0);
        ASSERT_EQ(r.tracks.size(), want) << "frame " << f;
        for (const people::TrackBox& t : r.tracks) {
            // The smoothed box lags a moving rectangle a little.
            int best = -1;
            for (size_t i = 0; i < truth.size(); ++i) {
                if (Iou(t.box, truth[i]) > 0.5f) best = int(i);
            }
            ASSERT_GE(best, 0) << "frame " << f << " id " << t.id;
            // The rectangle an id was first seen on is the one it stays on.
            EXPECT_EQ(rect_of_id.emplace(t.id, best).first->second, best)
                << "frame " << f << " id " << t.id;
        }
    }
    EXPECT_EQ(rect_of_id.size(), 4u);

    for (int rotate : {90, 270}) {
        o.rotate = rotate;
        RectFinder turned_finder(200, 200, false, true);
        const Outcome turned = RunOn(Clip("rects.avi"), o, turned_finder);
        ASSERT_EQ(turned.error, "");
        ASSERT_EQ(turned.frames.size(), up.frames.size());
        for (int f = 0; f < kFrames; ++f) {
            const FrameResult &a = up.frames[f], &b = turned.frames[f];
            ASSERT_EQ(b.tracks.size(), a.tracks.size()) << rotate << " frame " << f;
            EXPECT_EQ(b.detections.size(), a.detections.size()) << rotate << " frame " << f;
            for (size_t i = 0; i < a.tracks.size(); ++i) {
                EXPECT_EQ(b.tracks[i].id, a.tracks[i].id);
                const QVN_Rect2D &p = a.tracks[i].box, &q = b.tracks[i].box;
                EXPECT_NEAR(q.x0, p.x0, 1e-4) << rotate << " frame " << f;
                EXPECT_NEAR(q.y0, p.y0, 1e-4) << rotate << " frame " << f;
                EXPECT_NEAR(q.x1, p.x1, 1e-4) << rotate << " frame " << f;
                EXPECT_NEAR(q.y1, p.y1, 1e-4) << rotate << " frame " << f;
            }
        }
    }
}

// A missing file, a clip cut short and a clip with nobody in it: a message
// naming the file or an empty result, never a crash; no box that is not
// finite comes out.
TEST_F(PeopleLoop, MissingCutAndEmptyClips) {
    people::LoopOptions o;
    RectFinder finder(160, 120, true, true);
    const Outcome missing = RunOn(Clip("nowhere.avi"), o, finder);
    EXPECT_NE(missing.error.find("nowhere.avi"), std::string::npos) << missing.error;
    EXPECT_TRUE(missing.frames.empty());

    const std::string whole = Slurp(Clip("rects.avi"));
    qvntest::WriteText(Clip("cut.avi"), whole.substr(0, whole.size() / 2));
    const Outcome cut = RunOn(Clip("cut.avi"), o, finder);
    EXPECT_NE(cut.error.find("cut.avi"), std::string::npos) << cut.error;
    EXPECT_LT(cut.frames.size(), size_t(kFrames));

    const Outcome empty = RunOn(Clip("empty.mp4"), o, finder);
    EXPECT_EQ(empty.error, "");
    EXPECT_EQ(empty.frames.size(), size_t(kFrames));
    for (const Outcome* run : {&cut, &empty}) {
        for (const FrameResult& r : run->frames) {
            if (run == &empty) {
                EXPECT_TRUE(r.detections.empty() && r.tracks.empty());
            }
            for (const people::TrackBox& t : r.tracks) {
                EXPECT_TRUE(std::isfinite(t.box.x0 + t.box.y0 + t.box.x1 + t.box.y1)) << r.frame;
            }
        }
    }
}

// What the loop hands the detector (and dumps) is, byte for byte, what
// `qvn-kit video` writes for the same frames and options.
TEST_F(PeopleLoop, TensorsAreWhatTheVideoCommandWrites) {
    struct Case {
        bool gray;
        int pad;
        std::string tool_args;
    };
    const Case cases[] = {{false, 114, "--tensor 3x200x200 --bgr --letterbox 114"},
                          {true, 7, "--tensor 1x96x160 --gray --letterbox 7"}};
    for (const Case& c : cases) {
        qvntest::ScratchDir out;
        people::LoopOptions o;
        o.first = 3, o.end = 20, o.every = 4;
        o.letterbox_pad = static_cast<uint8_t>(c.pad);
        o.dump_dir = out.path();
        RectFinder finder(c.gray ? 160 : 200, c.gray ? 96 : 200, c.gray);
        ASSERT_EQ(RunOn(Clip("rects.avi"), o, finder).error, "");
        const qvntest::RunResult r =
            RunTool(out, "video '" + Clip("rects.avi") + "' '" + out / "tool" +
                             "' --frames 3:20 --every 4 --shard 100 " + c.tool_args);
        ASSERT_EQ(r.code, 0) << r.err;
        const qvntest::Npy shard = qvntest::ReadNpy(out / "tool/frames_00000.npy");
        const int kept[] = {3, 7, 11, 15, 19};
        ASSERT_EQ(finder.handed.size(), 5u);
        ASSERT_EQ(shard.body.size(), 5 * finder.handed[0].size());
        for (size_t i = 0; i < 5; ++i) {
            const std::vector<uint8_t>& mine = finder.handed[i];
            EXPECT_TRUE(std::equal(mine.begin(), mine.end(), shard.body.begin() + i * mine.size()))
                << kept[i];
            char name[32];
            std::snprintf(name, sizeof name, "tensor_%06d.npy", kept[i]);
            EXPECT_TRUE(qvntest::ReadNpy(out / name).body == mine) << name;
        }
    }
}

}  // namespace
