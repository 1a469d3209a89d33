// Tensor processing entry points, end to end through the core's own
// image-process object: the planes they produce against a byte selection,
// cv::rotate / cv::flip and cv::resize. A wrong operation code, a plane view
// at the wrong offset or a lost crop box shows up as wrong pixels (the core
// refuses a tensor of the wrong shape and leaves the output alone).
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "cv_support.h"
#include "log_capture.hpp"
#include "test_support.h"

// The no-turn path's throw-away allocation is observed by making it fail:
// with AddressSanitizer an impossible allocation must come back as a failure
// (and so as std::bad_alloc) rather than end the program. The sanitizer
// runtime looks this hook up by name, so it must be exported.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using quvas::kit::TensorPtr;
using quvas::runtime::Context;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorShape;

constexpr uint8_t kUntouched = 0x5A;

// Every field of a shape, as one comparable value.
using ShapeFields = std::tuple<std::vector<int32_t>, int32_t, int32_t, uint32_t, uint16_t, std::string, std::string>;
ShapeFields Fields(const TensorShape& s) {
    return {s.dims, s.data_type, s.layout, s.location, s.extra.step_size, s.extra.serializable_type,
            s.serializable_type};
}

class TensorPipeline : public ::testing::Test {
protected:
    void SetUp() override { ctx->device = &device; }
    TensorPtr Random(std::vector<int32_t> dims, int32_t layout) {
        TensorPtr t = qvntest::FilledTensor(device, std::move(dims), layout, 0);
        qvntest::FillRandom(t->data(), t->byte_size(), rng);
        return t;
    }
    TensorPtr Blank(std::vector<int32_t> dims, int32_t layout) {
        return qvntest::FilledTensor(device, std::move(dims), layout, kUntouched);
    }
    // A u8 plane of a tensor's storage, `offset` bytes in.
    static cv::Mat Plane(const TensorPtr& t, int rows, int cols, size_t offset, int channels = 1) {
        return cv::Mat(rows, cols, CV_8UC(channels), t->data() + offset);
    }
    static cv::Mat Resized(const cv::Mat& src, int rows, int cols) {
        cv::Mat out;
        cv::resize(src, out, cv::Size(cols, rows), 0, 0, cv::INTER_LINEAR);
        return out;
    }

    DeviceCPU device;
    std::shared_ptr<Context> ctx = std::make_shared<Context>();
    quvas::kernel::ImageProcessFallback proc;
    std::mt19937 rng{20240907u};
};

// ---------------------------------------------------------------------------
// Colour conversion: plane c of the output is byte order[c] of each pixel.
// ---------------------------------------------------------------------------

TEST_F(TensorPipeline, ColourPlanesPickTheFormatsBytes) {
    // A three-plane 4:2:0 frame with neutral chroma turns into three copies
    // of its luma. Every format without a row of its own is read as three
    // bytes a pixel and reversed.
    struct Row { int fmt, channels, rgb[3], bgr[3]; };
    std::vector<Row> rows = {{1, 1, {0, 0, 0}, {0, 0, 0}},  {5, 4, {2, 1, 0}, {0, 1, 2}},
                             {6, 4, {0, 1, 2}, {2, 1, 0}},  {10, 3, {0, 1, 2}, {2, 1, 0}},
                             {11, 3, {2, 1, 0}, {0, 1, 2}}};
    for (int fmt : {0, 2, 3, 4, 7, 8, 9, 12, 13, 14, 15}) rows.push_back({fmt, 3, {2, 1, 0}, {2, 1, 0}});
    const int h = 6, w = 10;
    for (const Row& r : rows) {
        for (int bgr = 0; bgr < 2; ++bgr) {
            SCOPED_TRACE(::testing::Message() << "format " << r.fmt << " bgr " << bgr);
            TensorPtr in = r.fmt == QVN_PIX_FMT_YUV420_A
                               ? Random({h, w, 1}, quvas::runtime::layout::kYUV420Planar)
                               : Random({h, w, r.channels}, quvas::runtime::layout::kHWC);
            if (r.fmt == QVN_PIX_FMT_YUV420_A) std::memset(in->data() + h * w, 128, h * w / 2);
            TensorPtr out = Blank({3, h, w}, quvas::runtime::layout::kCHW);
            (bgr ? quvas::kit::ConvertColorProcessSSEToBGRTensor : quvas::kit::ConvertColorProcessSSE)(
                in, out, static_cast<QVN_PIX_FMT>(r.fmt), &proc, ctx);
            const int* order = bgr ? r.bgr : r.rgb;
            int bad = 0;
            for (int c = 0; c < 3; ++c)
                for (int p = 0; p < h * w; ++p)
                    bad += out->data()[c * h * w + p] != in->data()[p * r.channels + order[c]];
            EXPECT_EQ(bad, 0);
        }
    }
}

// ---------------------------------------------------------------------------
// Orientation transform: the first turn bit set, then the one mirror.
// ---------------------------------------------------------------------------

TEST_F(TensorPipeline, TransformTurnsThenMirrorsEveryPlane) {
    // The lowest turn bit wins; the box-only half turn (64) turns pixels too;
    // either flip bit, or both, asks for the horizontal mirror.
    const int cw = cv::ROTATE_90_CLOCKWISE, ccw = cv::ROTATE_90_COUNTERCLOCKWISE, half = cv::ROTATE_180;
    struct Case { unsigned flags; int turn; bool mirror; };  // turn -1: none
    const Case cases[] = {
        {0x01, ccw, false}, {0x02, cw, false},   {0x04, half, false}, {0x40, half, false},
        {0x44, half, false}, {0x03, ccw, false}, {0x05, ccw, false},  {0x06, cw, false},
        {0x07, ccw, false}, {0x42, cw, false},   {0x13, ccw, true},   {0x0A, cw, true},
        {0x14, half, true},  {0x48, half, true}, {0x1F, ccw, true},   {0x08, -1, true},
        {0x10, -1, true},    {0x18, -1, true},
    };
    const int c = 3, h = 5, w = 9;
    for (const Case& k : cases) {
        SCOPED_TRACE(::testing::Message() << "flags 0x" << std::hex << k.flags);
        const bool quarter = k.turn == cw || k.turn == ccw;
        const int oh = quarter ? w : h, ow = quarter ? h : w;
        TensorShape in_shape({c, h, w}, 7, quvas::runtime::layout::kCHW);
        in_shape.extra.step_size = 9;
        in_shape.extra.serializable_type = "in-extra";
        in_shape.serializable_type = "in-type";
        TensorPtr in = device.CreateTensor(in_shape, qvntest::RandomBytes(c * h * w, rng).data());
        TensorPtr out = Blank({c, oh, ow}, quvas::runtime::layout::kCHW);
        quvas::runtime::Tensor* const out_before = out.get();
        quvas::kit::TransformMatrixProcessSSE(in, out, static_cast<QVN_ORIENT_FMT>(k.flags), &proc, ctx);
        if (k.mirror) {
            EXPECT_EQ(out.get(), out_before);  // the mirror writes the caller's tensor
        } else {
            // The caller gets the turn's own tensor, made on the context's
            // device: the kit's shape for a quarter turn, the input's for a
            // half turn.
            EXPECT_EQ(Fields(out->shape()), quarter ? Fields(TensorShape({c, oh, ow}, 7, 0)) : Fields(in->shape()));
            EXPECT_TRUE(out->owns_data() && out->device() == &device && out.get() != in.get());
        }
        ASSERT_EQ(out->shape().dims, std::vector<int32_t>({c, oh, ow}));
        for (int p = 0; p < c; ++p) {
            cv::Mat want = Plane(in, h, w, size_t(p) * h * w).clone();
            if (k.turn >= 0) cv::rotate(want, want, k.turn);
            if (k.mirror) cv::flip(want, want, 1);
            EXPECT_EQ(qvntest::MaxDiff(want, Plane(out, oh, ow, size_t(p) * oh * ow)), 0) << "plane " << p;
        }
    }
    // No turn and no flip (also a bit outside the tested set): the output is
    // the input itself.
    for (unsigned flags : {0x00u, 0x20u}) {
        TensorPtr in = Random({c, h, w}, quvas::runtime::layout::kCHW);
        TensorPtr out = Blank({c, h, w}, quvas::runtime::layout::kCHW);
        quvas::kit::TransformMatrixProcessSSE(in, out, static_cast<QVN_ORIENT_FMT>(flags), &proc, ctx);
        EXPECT_EQ(out.get(), in.get()) << flags;
    }
}

// The no-turn path still allocates a tensor of the input's shape and drops
// it. An input whose storage could never be allocated (an external view of
// 2^60 bytes that nothing reads) makes that allocation visible.
TEST_F(TensorPipeline, TransformWithoutTurnStillAllocatesTheInputShape) {
    static uint8_t byte = 0;
    TensorPtr in = device.CreateTensorExternal(TensorShape({1 << 20, 1 << 20, 1 << 20}, 7, 0), &byte);
    for (unsigned flags : {0x00u, 0x08u, 0x10u, 0x20u}) {
        SCOPED_TRACE(flags);
        TensorPtr out = Blank({1, 1, 1}, 1);
        quvas::runtime::Tensor* const out_before = out.get();
        EXPECT_THROW(quvas::kit::TransformMatrixProcessSSE(in, out, static_cast<QVN_ORIENT_FMT>(flags),
                                                           &proc, ctx),
                     std::bad_alloc);
        EXPECT_EQ(out.get(), out_before);
        EXPECT_TRUE(qvntest::AllBytes(out, kUntouched));
    }
}

// ---------------------------------------------------------------------------
// Resize and crop-resize.
// ---------------------------------------------------------------------------

// The crop box (0.25, 0.5) - (0.75, 1) of a 16 x 24 picture halved is the
// 2x downscale of the 8 x 12 window at (6, 8), inside it for every tap; the
// box is not square, so exchanged coordinates show.
TEST_F(TensorPipeline, PackedFormatsResizeAndCropLikeOpenCV) {
    for (const int fmt : {10, 11, 5, 6}) {
        SCOPED_TRACE(fmt);
        const int ch = fmt >= 10 ? 3 : 4;
        TensorPtr in = Random({16, 24, ch}, quvas::runtime::layout::kHWC);
        TensorPtr out = Blank({7, 9, ch}, quvas::runtime::layout::kHWC);
        quvas::kit::ResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(fmt), &proc, ctx);
        EXPECT_LE(qvntest::MaxDiff(Resized(Plane(in, 16, 24, 0, ch), 7, 9), Plane(out, 7, 9, 0, ch)), 2);
        TensorPtr crop = Blank({4, 6, ch}, quvas::runtime::layout::kHWC);
        quvas::kit::CropResizeProcessSSE(in, crop, static_cast<QVN_PIX_FMT>(fmt), &proc, ctx, 0.25f,
                                         0.5f, 0.75f, 1.0f);
        const cv::Mat window = Plane(in, 16, 24, 0, ch)(cv::Rect(6, 8, 12, 8));
        EXPECT_LE(qvntest::MaxDiff(Resized(window, 4, 6), Plane(crop, 4, 6, 0, ch)), 2);
    }
}

// Three-plane 4:2:0 goes plane by plane: luma, then two chroma planes of the
// halved dims, the second a quarter of the luma size after the first (with
// odd sizes that leaves a gap). Only the first two dims are read.
TEST_F(TensorPipeline, PlanarYUVResizesAndCropsEachPlane) {
    struct Case { std::vector<int32_t> in_dims, out_dims; bool crop; };
    const Case cases[] = {{{5, 7}, {6, 10}, false}, {{8, 4, 1}, {4, 2, 3}, false},
                          {{16, 24}, {8, 12}, true}};
    for (const Case& k : cases) {
        const int h = k.in_dims[0], w = k.in_dims[1], oh = k.out_dims[0], ow = k.out_dims[1];
        SCOPED_TRACE(::testing::Message() << h << "x" << w << " crop " << k.crop);
        // Storage generous enough for every plane, whatever the dims say.
        std::vector<uint8_t> in_buf = qvntest::RandomBytes(4096, rng), out_buf(4096, kUntouched);
        TensorPtr in = device.CreateTensorExternal(TensorShape(k.in_dims, 7, 1), in_buf.data());
        TensorPtr out = device.CreateTensorExternal(TensorShape(k.out_dims, 7, 1), out_buf.data());
        if (k.crop) {
            quvas::kit::CropResizeProcessSSE(in, out, QVN_PIX_FMT_YUV420_A, &proc, ctx, 0.25f, 0.5f,
                                             0.75f, 1.0f);
        } else {
            quvas::kit::ResizeProcessSSE(in, out, QVN_PIX_FMT_YUV420_A, &proc, ctx);
        }
        const size_t in_at[3] = {0, size_t(h * w), size_t(h * w + h * w / 4)};
        const size_t out_at[3] = {0, size_t(oh * ow), size_t(oh * ow + oh * ow / 4)};
        for (int i = 0; i < 3; ++i) {
            const int s = i ? 2 : 1;  // chroma planes are the halved dims
            cv::Mat src = Plane(in, h / s, w / s, in_at[i]);
            if (k.crop) src = src(cv::Rect(w / s / 4, h / s / 2, w / s / 2, h / s / 2));
            EXPECT_LE(qvntest::MaxDiff(Resized(src, oh / s, ow / s), Plane(out, oh / s, ow / s, out_at[i])), 2)
                << "plane " << i;
        }
        // Nothing written past the last plane.
        const size_t end = out_at[2] + size_t(oh / 2) * (ow / 2);
        EXPECT_EQ(std::count(out_buf.begin() + end, out_buf.end(), kUntouched), long(out_buf.size() - end));
    }
}

TEST_F(TensorPipeline, OtherFormatsAreIgnoredSilently) {
    for (int fmt : {0, 2, 3, 4, 7, 8, 9, 12, 13, 14, 15}) {
        SCOPED_TRACE(fmt);
        TensorPtr in = Random({4, 6, 4}, 1), out = Blank({2, 3, 4}, 1);
        quvas::runtime::Tensor* const out_before = out.get();
        LogCapture capture;
        quvas::kit::ResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(fmt), &proc, ctx);
        quvas::kit::CropResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(fmt), &proc, ctx, 0.f,
                                         0.f, 1.f, 1.f);
        EXPECT_TRUE(capture.Take().empty());
        EXPECT_EQ(out.get(), out_before);
        EXPECT_TRUE(qvntest::AllBytes(out, kUntouched));
    }
}

}  // namespace
