// Orientation of results (faces, bodies, gestures, object counts, boxes) in
// place, and of packed images into a second buffer.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;

// ---------------------------------------------------------------------------
// Fixtures
// ---------------------------------------------------------------------------

// Values on a 1/1024 grid inside [0, 1]: 1 - v is exact for them, so round
// trips can be compared byte for byte.
float Dyadic(std::mt19937& rng) { return static_cast<float>(rng() % 1025) / 1024.0f; }

// Arbitrary floats, including values outside 0..1 (never clamped).
float AnyFloat(std::mt19937& rng) {
    return std::uniform_real_distribution<float>(-0.5f, 1.5f)(rng);
}

template <class T>
std::unique_ptr<T> Filled(std::mt19937& rng, float (*value)(std::mt19937&)) {
    auto rec = std::make_unique<T>();
    auto* words = reinterpret_cast<float*>(rec.get());
    for (size_t i = 0; i < sizeof(T) / 4; ++i) words[i] = value(rng);
    return rec;
}

std::unique_ptr<QVN_FaceFrameDataArr> Faces(std::mt19937& rng, uint32_t count,
                                            std::vector<uint32_t> nums,
                                            float (*value)(std::mt19937&) = Dyadic) {
    auto arr = Filled<QVN_FaceFrameDataArr>(rng, value);
    arr->count = count;
    for (uint32_t i = 0; i < QVN_MAX_FACE_NUM; ++i) {
        arr->faces[i].landmarksNum = nums[i % nums.size()];
        arr->faces[i].sidePair[0] = static_cast<int32_t>(100 + i);
        arr->faces[i].sidePair[1] = static_cast<int32_t>(200 + i);
    }
    return arr;
}

std::unique_ptr<QVN_BodyFrameDataArr> Bodies(std::mt19937& rng, uint32_t count,
                                             float (*value)(std::mt19937&) = Dyadic) {
    auto arr = Filled<QVN_BodyFrameDataArr>(rng, value);
    arr->count = count;
    for (uint32_t i = 0; i < QVN_MAX_BODY_NUM; ++i) arr->bodies[i].landmarksNum = (i * 7) % 36;
    return arr;
}

std::unique_ptr<QVN_GestureFrameDataArr> Gestures(std::mt19937& rng, uint32_t count) {
    auto arr = Filled<QVN_GestureFrameDataArr>(rng, Dyadic);
    arr->count = count;
    return arr;
}

template <class T>
bool SameBytes(const T& a, const T& b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// The point and box maps written out one coordinate at a time.
enum Op { kRot90, kRot180, kRot270, kFlipH, kFlipV };

QVN_Point2D MapPoint(Op op, QVN_Point2D p) {
    switch (op) {
        case kRot90: return {1.0f - p.y, p.x};
        case kRot180: return {1.0f - p.x, 1.0f - p.y};
        case kRot270: return {p.y, 1.0f - p.x};
        case kFlipH: return {1.0f - p.x, p.y};
        default: return {p.x, 1.0f - p.y};
    }
}

QVN_Rect2D MapRect(Op op, QVN_Rect2D r) {
    switch (op) {
        case kRot90: return {1.0f - r.y1, r.x0, 1.0f - r.y0, r.x1};
        case kRot180: return {1.0f - r.x1, 1.0f - r.y1, 1.0f - r.x0, 1.0f - r.y0};
        case kRot270: return {r.y0, 1.0f - r.x1, r.y1, 1.0f - r.x0};
        case kFlipH: return {1.0f - r.x1, r.y0, 1.0f - r.x0, r.y1};
        default: return {r.x0, 1.0f - r.y1, r.x1, 1.0f - r.y0};
    }
}

// A record as the maps make it: its box and, for faces and bodies, every
// valid landmark.
void MapRecord(Op op, QVN_Rect2D* r) { *r = MapRect(op, *r); }
void MapRecord(Op op, QVN_Gesture* g) { g->rect = MapRect(op, g->rect); }
template <class FaceOrBody>
void MapRecord(Op op, FaceOrBody* r) {
    r->rect = MapRect(op, r->rect);
    for (uint32_t k = 0; k < r->landmarksNum; ++k) r->landmarks[k] = MapPoint(op, r->landmarks[k]);
}

// The 132 mirror pairs, written from their description as runs of
// counterparts (a + i, b - i).
std::vector<int> MirrorPartners() {
    std::vector<int> partner(278);
    for (int k = 0; k < 278; ++k) partner[k] = k;
    int pairs = 0;
    auto run = [&](int a, int b, int n) {
        for (int i = 0; i < n; ++i, ++pairs) {
            EXPECT_EQ(partner[a + i], a + i) << "index named twice";
            EXPECT_EQ(partner[b - i], b - i) << "index named twice";
            partner[a + i] = b - i;
            partner[b - i] = a + i;
        }
    };
    run(0, 32, 16);
    run(33, 46, 5), run(38, 50, 4);
    run(66, 78, 5), run(71, 81, 3);
    run(102, 103, 1);
    run(55, 65, 5);
    run(82, 88, 3), run(89, 93, 2), run(94, 98, 2), run(99, 101, 1);
    run(104, 123, 7), run(111, 129, 6);
    run(130, 163, 12), run(142, 173, 10);
    run(174, 190, 8);
    run(191, 205, 7);
    run(206, 222, 8);
    run(223, 237, 7);
    run(238, 268, 11), run(249, 276, 8), run(257, 277, 1);
    EXPECT_EQ(pairs, 132);
    return partner;
}

// The expected face after a mirror: x of the valid landmarks flipped, then
// every landmark and score moved to its counterpart's slot.
QVN_Face MirroredFace(const QVN_Face& in) {
    static const std::vector<int> partner = MirrorPartners();
    QVN_Face out = in;
    out.rect = MapRect(kFlipH, in.rect);
    for (int k = 0; k < 278; ++k) {
        const int p = partner[k];
        QVN_Point2D pt = in.landmarks[p];
        if (static_cast<uint32_t>(p) < in.landmarksNum) pt = MapPoint(kFlipH, pt);
        out.landmarks[k] = pt;
        out.landmarkScores[k] = in.landmarkScores[p];
    }
    std::swap(out.sidePair[0], out.sidePair[1]);
    return out;
}

// ---------------------------------------------------------------------------
// Result transforms
// ---------------------------------------------------------------------------

TEST(ResultTransforms, EveryRecordFollowsThePointAndBoxMaps) {
    std::mt19937 rng(20240601);
    // Landmark counts around the eight-point steps, and the full face.
    auto faces = Faces(rng, 9, {0, 1, 7, 8, 9, 15, 16, 17, 278}, AnyFloat);
    auto bodies = Bodies(rng, 16, AnyFloat);
    auto gestures = Gestures(rng, 5);
    std::vector<QVN_Rect2D> boxes(6);
    for (auto& b : boxes) b = {AnyFloat(rng), AnyFloat(rng), AnyFloat(rng), AnyFloat(rng)};
    // Each record through its flat entry points: the turn by angle, the
    // mirror and the flip.
    auto apply = [](Op op, auto rotate, auto mirror, auto flipv, auto* rec) {
        switch (op) {
            case kRot90: return rotate(rec, 90);
            case kRot180: return rotate(rec, 180);
            case kRot270: return rotate(rec, 270);
            case kFlipH: return mirror(rec);
            default: return flipv(rec);
        }
    };
    for (Op op : {kRot90, kRot180, kRot270, kFlipH, kFlipV}) {
        SCOPED_TRACE(op);
        // The first `count` of n records mapped, the rest left alone.
        auto expect = [op](const char* what, const auto* got, const auto* in, size_t n, size_t count) {
            for (size_t i = 0; i < n; ++i) {
                auto want = in[i];
                if (i < count) MapRecord(op, &want);
                EXPECT_TRUE(SameBytes(got[i], want)) << what << " " << i;
            }
        };
        if (op != kFlipH) {  // the face mirror also reorders: its own test
            auto out = std::make_unique<QVN_FaceFrameDataArr>(*faces);
            EXPECT_EQ(apply(op, QVN_FaceFrameDataArr_Result_Rotate, QVN_FaceFrameDataArr_Result_Mirror,
                            QVN_FaceFrameDataArr_Result_FlipV, out.get()), 0);
            expect("face", out->faces, faces->faces, QVN_MAX_FACE_NUM, faces->count);
        }
        auto body_out = std::make_unique<QVN_BodyFrameDataArr>(*bodies);
        EXPECT_EQ(apply(op, QVN_BodyFrameDataArr_Result_Rotate, QVN_BodyFrameDataArr_Result_Mirror,
                        QVN_BodyFrameDataArr_Result_FlipV, body_out.get()), 0);
        expect("body", body_out->bodies, bodies->bodies, QVN_MAX_BODY_NUM, QVN_MAX_BODY_NUM);
        std::vector<QVN_Rect2D> obj = boxes;
        QVN_ObjCountDataArr arr{4, obj.data()};  // the last two lie past count
        EXPECT_EQ(apply(op, QVN_ObjCountDataArr_Result_Rotate, QVN_ObjCountDataArr_Result_Mirror,
                        QVN_ObjCountDataArr_Result_FlipV, &arr), 0);
        expect("box", obj.data(), boxes.data(), obj.size(), 4);
        auto g = std::make_unique<QVN_GestureFrameDataArr>(*gestures);
        EXPECT_EQ(apply(op, QVN_GestureFrameDataArr_Result_Rotate,
                        QVN_GestureFrameDataArr_Result_Mirror, QVN_GestureFrameDataArr_Result_FlipV,
                        g.get()), 0);
        expect("gesture", g->gestures, gestures->gestures, QVN_MAX_GESTURE_NUM, gestures->count);
        if (op != kFlipV) {  // the rectangle's flip keeps the old bottom: below
            QVN_Rect2D r = boxes[0];
            EXPECT_EQ(apply(op, QVN_Rect2D_Result_Rotate, QVN_Rect2D_Result_Mirror,
                            QVN_Rect2D_Result_FlipV, &r), 0);
            EXPECT_TRUE(SameBytes(r, MapRect(op, boxes[0])));
        }
    }
}

TEST(ResultTransforms, FaceMirrorExchangesEveryPairWithItsScore) {
    std::mt19937 rng(7);
    // 0 valid landmarks, a count between pairs, and the full face.
    auto faces = Faces(rng, 3, {278, 0, 100});
    auto out = std::make_unique<QVN_FaceFrameDataArr>(*faces);
    EXPECT_EQ(QVN_FaceFrameDataArr_Result_Mirror(out.get()), 0);
    for (uint32_t i = 0; i < QVN_MAX_FACE_NUM; ++i) {
        const QVN_Face want = i < 3 ? MirroredFace(faces->faces[i]) : faces->faces[i];
        EXPECT_TRUE(SameBytes(out->faces[i], want)) << "face " << i;
    }
}

TEST(ResultTransforms, RectangleFlipVKeepsTheOldBottomAsTop) {
    QVN_Rect2D r{0.1f, 0.2f, 0.3f, 0.6f};
    EXPECT_EQ(QVN_Rect2D_Result_FlipV(&r), 0);
    EXPECT_EQ(std::vector<float>({r.x0, r.y0, r.x1}), std::vector<float>({0.1f, 0.6f, 0.3f}));
    EXPECT_FLOAT_EQ(r.y1, 0.8f);
    QVN_Rect2D_Result_FlipV(&r);  // not an involution
    EXPECT_FLOAT_EQ(r.y0, 0.8f);
    EXPECT_FLOAT_EQ(r.y1, 0.4f);
}

TEST(ResultStatus, CodesAndMessagesOfEveryFamily) {
    std::mt19937 rng(3);
    auto faces = Faces(rng, 2, {278});
    auto bodies = Bodies(rng, 3);
    auto gestures = Gestures(rng, 2);
    std::vector<QVN_Rect2D> boxes(3, QVN_Rect2D{0.1f, 0.2f, 0.3f, 0.4f});
    QVN_ObjCountDataArr obj{3, boxes.data()};
    QVN_Rect2D rect{0.1f, 0.2f, 0.3f, 0.4f};
    struct Case {
        const char* name;
        void* rec;
        size_t size;
        int32_t (*rotate)(void*, int);
        int32_t (*mirror)(void*);
        int32_t (*flipv)(void*);
        int32_t bad_status;
        const char* bad_message;
        bool takes_360;
    };
#define QVN_CASE(Rec, rec, size, code, msg, t360)                                               \
    Case {                                                                                     \
        #Rec, rec, size,                                                                       \
            [](void* p, int a) { return QVN_##Rec##_Result_Rotate(static_cast<QVN_##Rec*>(p), a); }, \
            [](void* p) { return QVN_##Rec##_Result_Mirror(static_cast<QVN_##Rec*>(p)); },      \
            [](void* p) { return QVN_##Rec##_Result_FlipV(static_cast<QVN_##Rec*>(p)); }, code, msg, t360 \
    }
    const Case cases[] = {
        QVN_CASE(FaceFrameDataArr, faces.get(), sizeof(*faces), -6, "unsupported angle of rotation!", true),
        QVN_CASE(ObjCountDataArr, &obj, sizeof(QVN_Rect2D) * 3, -6,
                 "unsupported angle for rotating result!", true),
        QVN_CASE(BodyFrameDataArr, bodies.get(), sizeof(*bodies), -6,
                 "Error: unsupported rotate angle!", true),
        QVN_CASE(GestureFrameDataArr, gestures.get(), sizeof(*gestures), -1,
                 "unsupported angle of rotation!", false),
        QVN_CASE(Rect2D, &rect, sizeof(rect), -1, "unsupported angle of rotation!", false),
    };
#undef QVN_CASE
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        EXPECT_EQ(c.rotate(nullptr, 90), -4);
        EXPECT_EQ(c.mirror(nullptr), -4);
        EXPECT_EQ(c.flipv(nullptr), -4);
        EXPECT_EQ(log.Take(), Lines(3, "data is NULL."));
        // Object counts keep their boxes behind a pointer: compare those.
        const void* bytes = c.rec == &obj ? static_cast<void*>(boxes.data()) : c.rec;
        const std::vector<char> before(static_cast<const char*>(bytes),
                                       static_cast<const char*>(bytes) + c.size);
        auto untouched = [&] { return std::memcmp(before.data(), bytes, c.size) == 0; };
        EXPECT_EQ(c.rotate(c.rec, 0), 0);
        EXPECT_TRUE(untouched());
        EXPECT_EQ(log.Take(), Lines());
        EXPECT_EQ(c.rotate(c.rec, 360), c.takes_360 ? 0 : c.bad_status);
        EXPECT_TRUE(untouched());
        EXPECT_EQ(log.Take(), c.takes_360 ? Lines() : Lines{c.bad_message});
        for (int angle : {45, -90, 1, 450, 720, -360}) {
            EXPECT_EQ(c.rotate(c.rec, angle), c.bad_status) << angle;
            EXPECT_TRUE(untouched()) << angle;
            EXPECT_EQ(log.Take(), Lines{c.bad_message}) << angle;
        }
    }
    // An empty gesture array accepts any angle; an empty object count too
    // touches nothing (its pointer is never read).
    QVN_GestureFrameDataArr none{};
    LogCapture log;
    EXPECT_EQ(QVN_GestureFrameDataArr_Result_Rotate(&none, 360), 0);
    EXPECT_EQ(QVN_GestureFrameDataArr_Result_Rotate(&none, 45), 0);
    QVN_ObjCountDataArr empty{-3, nullptr};
    EXPECT_EQ(QVN_ObjCountDataArr_Result_Rotate(&empty, 90), 0);
    EXPECT_EQ(QVN_ObjCountDataArr_Result_Mirror(&empty), 0);
    EXPECT_EQ(log.Take(), Lines());
}

TEST(ResultStatus, ExceptionHandlersOfBodiesGesturesAndRectangles) {
    // The transforms themselves cannot throw; the only thing inside the
    // handled region that can is the log line of a refused angle, when the
    // caller's log callback throws. Bodies, gestures and rectangles turn that
    // into -1 and a line of their own; faces and object counts let it pass.
    std::mt19937 rng(5);
    auto bodies = Bodies(rng, 2);
    const auto bodies_before = *bodies;
    {
        LogCapture log("Error: unsupported rotate angle!");
        EXPECT_EQ(QVN_BodyFrameDataArr_Result_Rotate(bodies.get(), 45), -1);
        EXPECT_EQ(log.Take(), (Lines{"Error: unsupported rotate angle!",
                                     "Pose::Process_Pose_Result failed. Error: sink refused the line"}));
    }
    EXPECT_TRUE(SameBytes(*bodies, bodies_before));
    auto gestures = Gestures(rng, 1);
    QVN_Rect2D rect{0.1f, 0.2f, 0.3f, 0.4f};
    {
        LogCapture log("unsupported angle of rotation!");
        EXPECT_EQ(QVN_GestureFrameDataArr_Result_Rotate(gestures.get(), 360), -1);
        EXPECT_EQ(QVN_Rect2D_Result_Rotate(&rect, 45), -1);
        const std::string handled = "rotate result failed. Error: sink refused the line";
        EXPECT_EQ(log.Take(), (Lines{"unsupported angle of rotation!", handled,
                                     "unsupported angle of rotation!", handled}));
        auto faces = Faces(rng, 1, {10});
        EXPECT_THROW(QVN_FaceFrameDataArr_Result_Rotate(faces.get(), 45), std::runtime_error);
    }
    LogCapture log("unsupported angle for rotating result!");
    QVN_ObjCountDataArr obj{1, &rect};
    EXPECT_THROW(QVN_ObjCountDataArr_Result_Rotate(&obj, 45), std::runtime_error);
}

// ---------------------------------------------------------------------------
// Images
// ---------------------------------------------------------------------------

// Pixel-by-pixel definition: src (x, y) goes to dst (X, Y) of width dw.
std::vector<uint8_t> Reference(const std::vector<uint8_t>& src, int w, int h, int n,
                               const std::function<std::pair<int, int>(int, int)>& to, int dw) {
    std::vector<uint8_t> dst(src.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const auto [X, Y] = to(x, y);
            std::memcpy(&dst[(static_cast<size_t>(Y) * dw + X) * n],
                        &src[(static_cast<size_t>(y) * w + x) * n], n);
        }
    }
    return dst;
}

QVN_Image Image(uint8_t* data, int w, int h, int n, QVN_Rect2D rect = {0.1f, 0.2f, 0.7f, 0.9f}) {
    QVN_Image img = qvntest::MakeImage(QVN_PIX_FMT_U8_CN, w, h, n, data, 1, rect);
    img.mode_fmt = 3;
    return img;
}

TEST(ImageOrientation, FieldsWrittenAndLeftAlone) {
    uint8_t pixels[6] = {1, 2, 3, 4, 5, 6};
    const QVN_Rect2D in{0.125f, 0.25f, 0.5f, 0.875f};
    const QVN_Image src = Image(pixels, 3, 2, 1, in);
    uint8_t out[6] = {};
    const QVN_Rect2D keep{9.0f, 8.0f, 7.0f, 6.0f};
    const QVN_Image blank = [&] {
        QVN_Image b = Image(out, 11, 12, 13, keep);
        b.ori_fmt = 21, b.pix_fmt = 22, b.mode_fmt = 23;
        return b;
    }();
    const struct {
        int angle;
        int w, h;
        QVN_Rect2D rect;
    } turns[] = {{0, 3, 2, keep},
                 {90, 2, 3, {0.125f, 0.125f, 0.75f, 0.5f}},
                 {180, 3, 2, {0.5f, 0.125f, 0.875f, 0.75f}},
                 {270, 2, 3, {0.25f, 0.5f, 0.875f, 0.875f}}};
    for (const auto& t : turns) {
        QVN_Image dst = blank;
        ASSERT_EQ(QVN_Clockwise_Rotate_Image_CPU(&src, &dst, t.angle), 0);
        QVN_Image want = blank;
        want.width = t.w, want.height = t.h, want.channels = 1, want.rect = t.rect;
        EXPECT_TRUE(SameBytes(dst, want)) << t.angle;
    }
    // Refused angles: -4, one line, dst and its pixels untouched.
    for (int angle : {360, 45, -90}) {
        LogCapture log;
        QVN_Image dst = blank;
        std::memset(out, 0x5a, sizeof(out));
        EXPECT_EQ(QVN_Clockwise_Rotate_Image_CPU(&src, &dst, angle), -4);
        EXPECT_TRUE(SameBytes(dst, blank));
        EXPECT_EQ(std::vector<uint8_t>(out, out + 6), std::vector<uint8_t>(6, 0x5a));
        EXPECT_EQ(log.Take(), Lines{"[Quvas Error] unsupported rotate angle"});
    }
    // Mirror and flip write only their half of the rect.
    QVN_Image dst = blank;
    EXPECT_EQ(QVN_Mirror_Image_CPU(&src, &dst), 0);
    QVN_Image want = blank;
    want.rect.x0 = 0.5f, want.rect.x1 = 0.875f;
    EXPECT_TRUE(SameBytes(dst, want));
    dst = blank;
    EXPECT_EQ(QVN_FlipV_Image_CPU(&src, &dst), 0);
    want = blank;
    want.rect.y0 = 0.125f, want.rect.y1 = 0.75f;
    EXPECT_TRUE(SameBytes(dst, want));
}

// One-pixel-wide images go through the pixel definition below.
TEST(ImageOrientation, EmptyImagesMoveNoPixel) {
    uint8_t guard[4] = {7, 7, 7, 7};
    const QVN_Image src = Image(guard, 0, 5, 3, {0.125f, 0.25f, 0.5f, 0.875f});
    QVN_Image dst = Image(guard, 1, 1, 1);
    EXPECT_EQ(QVN_Clockwise_Rotate_Image_CPU(&src, &dst, 90), 0);
    EXPECT_EQ(dst.width, 5);
    EXPECT_EQ(dst.height, 0);
    EXPECT_EQ(dst.rect.x0, 0.125f);  // 1 - y1
    EXPECT_EQ(dst.rect.y0, 0.125f);
    EXPECT_EQ(QVN_Mirror_Image_CPU(&src, &dst), 0);
    EXPECT_EQ(QVN_FlipV_Image_CPU(&src, &dst), 0);
    EXPECT_EQ(std::vector<uint8_t>(guard, guard + 4), std::vector<uint8_t>(4, 7));
}

TEST(ImageOrientation, MatchesThePixelDefinitionForAnyPixelSize) {
    std::mt19937 rng(11);
    // The pixels move through the core's plane drivers, which the row-kernel
    // tests hold to the same definitions at every tail; this checks what the
    // kit hands them (strides, sizes, which turn) for every kind of pixel.
    const std::pair<int, int> sizes[] = {{1, 1}, {1, 9}, {9, 1}, {3, 2}, {33, 65}, {257, 19}};
    for (int n : {1, 2, 3, 4, 7, 16}) {
        for (const auto& [w, h] : sizes) {
            SCOPED_TRACE(testing::Message() << w << "x" << h << "x" << n);
            const size_t bytes = static_cast<size_t>(w) * h * n;
            // One byte of offset: the kernels must not need aligned rows.
            std::vector<uint8_t> src_buf(bytes + 1), dst_buf(bytes + 1);
            qvntest::FillRandom(src_buf.data(), src_buf.size(), rng);
            const std::vector<uint8_t> src_px(src_buf.begin() + 1, src_buf.end());
            const QVN_Image src = Image(src_buf.data() + 1, w, h, n);
            auto run = [&](const char* what, auto&& call, const std::vector<uint8_t>& want) {
                std::fill(dst_buf.begin(), dst_buf.end(), 0xEE);
                QVN_Image dst = src;
                dst.data = dst_buf.data() + 1;
                EXPECT_EQ(call(&dst), 0) << what;
                EXPECT_EQ(dst_buf[0], 0xEE) << what;
                EXPECT_TRUE(std::equal(want.begin(), want.end(), dst_buf.begin() + 1)) << what;
            };
            auto rotate = [&](int a) { return [&src, a](QVN_Image* d) { return QVN_Clockwise_Rotate_Image_CPU(&src, d, a); }; };
            run("90", rotate(90), Reference(src_px, w, h, n, [&](int x, int y) { return std::pair(h - 1 - y, x); }, h));
            run("180", rotate(180), Reference(src_px, w, h, n, [&](int x, int y) { return std::pair(w - 1 - x, h - 1 - y); }, w));
            run("270", rotate(270), Reference(src_px, w, h, n, [&](int x, int y) { return std::pair(y, w - 1 - x); }, h));
            run("mirror", [&](QVN_Image* d) { return QVN_Mirror_Image_CPU(&src, d); },
                Reference(src_px, w, h, n, [&](int x, int y) { return std::pair(w - 1 - x, y); }, w));
            run("flipv", [&](QVN_Image* d) { return QVN_FlipV_Image_CPU(&src, d); },
                Reference(src_px, w, h, n, [&](int x, int y) { return std::pair(x, h - 1 - y); }, w));
        }
    }
}

}  // namespace
