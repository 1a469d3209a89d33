// Tensor processing entry points: which core operation runs, on which
// tensors, with which shapes and plane offsets. A recording image-process
// object stands in for the core's; it notes every call and touches no pixel.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"

// The transform's throw-away allocation is observed by making it fail: with
// AddressSanitizer an impossible allocation must come back as a failure (and
// so as std::bad_alloc) rather than end the program. The sanitizer runtime
// looks this hook up by name, so it must be exported.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using quvas::kit::TensorPtr;
using quvas::runtime::Context;
using quvas::runtime::DeviceCPU;
using quvas::runtime::Tensor;
using quvas::runtime::TensorShape;

struct Call {
    int code = 0;
    bool with_box = false;
    float box[4] = {0, 0, 0, 0};
    Tensor *in = nullptr, *out = nullptr;
    std::weak_ptr<Tensor> in_ref, out_ref;
    TensorShape in_shape, out_shape;
    uint8_t *in_data = nullptr, *out_data = nullptr;
    bool in_owns = false, out_owns = false;
    Context* ctx = nullptr;
    long ctx_uses = 0;
};

class RecordingProcess : public quvas::kernel::ImageProcessFallback {
public:
    void ConvertPixel(std::shared_ptr<Tensor>& in, std::shared_ptr<Tensor>& out, int code,
                      std::shared_ptr<Context> ctx) override {
        Record(in, out, code, ctx, nullptr);
    }
    void ConvertPixel(std::shared_ptr<Tensor>& in, std::shared_ptr<Tensor>& out, float a, float b,
                      float c, float d, int code, std::shared_ptr<Context> ctx) override {
        const float box[4] = {a, b, c, d};
        Record(in, out, code, ctx, box);
    }

    std::vector<Call> calls;
    int throw_on_code = -1;  // throw std::runtime_error when this code arrives

private:
    void Record(const TensorPtr& in, const TensorPtr& out, int code,
                const std::shared_ptr<Context>& ctx, const float* box) {
        Call c;
        c.code = code, c.with_box = box != nullptr;
        if (box) std::memcpy(c.box, box, sizeof(c.box));
        c.in = in.get(), c.out = out.get(), c.in_ref = in, c.out_ref = out;
        if (in) c.in_shape = in->shape(), c.in_data = in->data(), c.in_owns = in->owns_data();
        if (out) c.out_shape = out->shape(), c.out_data = out->data(), c.out_owns = out->owns_data();
        c.ctx = ctx.get(), c.ctx_uses = ctx.use_count();
        calls.push_back(c);
        if (code == throw_on_code) throw std::runtime_error("recorded failure");
    }
};

// Every field of a shape that the pipeline sets, as one comparable value.
using ShapeFields = std::tuple<std::vector<int32_t>, int32_t, int32_t, uint32_t, uint16_t, std::string,
                               std::string>;
ShapeFields Fields(const TensorShape& s) {
    return {s.dims, s.data_type, s.layout, s.location, s.extra.step_size, s.extra.serializable_type,
            s.serializable_type};
}

std::vector<int> Codes(const RecordingProcess& proc) {
    std::vector<int> codes;
    for (const Call& c : proc.calls) codes.push_back(c.code);
    return codes;
}

// The box reached the core bit for bit.
bool SameBox(const float (&got)[4], std::initializer_list<float> want) {
    return std::memcmp(got, want.begin(), sizeof(got)) == 0;
}

class TensorPipeline : public ::testing::Test {
protected:
    void SetUp() override {
        ctx = std::make_shared<Context>();
        ctx->device = &device;
    }
    TensorPtr Make(std::vector<int32_t> dims, int32_t layout = 1, uint8_t fill = 0) {
        return qvntest::FilledTensor(device, std::move(dims), layout, fill);
    }
    void Transform(TensorPtr& in, TensorPtr& out, unsigned flags) {
        quvas::kit::TransformMatrixProcessSSE(in, out, static_cast<QVN_ORIENT_FMT>(flags), &proc, ctx);
    }
    DeviceCPU device;
    std::shared_ptr<Context> ctx;
    RecordingProcess proc;
};

// ---------------------------------------------------------------------------
// Colour conversion: one call, code chosen by the pixel format.
// ---------------------------------------------------------------------------

TEST_F(TensorPipeline, ColourCodesFollowTheFormatTables) {
    // {format, code for planar R,G,B, code for planar B,G,R}
    const int table[][3] = {
        {0, 60, 60},  {1, 32, 32},  {2, 60, 60},  {3, 60, 60},   {4, 60, 60},
        {5, 3, 1},    {6, 1, 3},    {7, 60, 60},  {8, 60, 60},   {9, 60, 60},
        {10, 4, 60},  {11, 60, 4},  {12, 60, 60}, {13, 60, 60},  {14, 60, 60},
        {15, 60, 60},
    };
    for (const auto& row : table) {
        const QVN_PIX_FMT fmt = static_cast<QVN_PIX_FMT>(row[0]);
        for (int bgr = 0; bgr < 2; ++bgr) {
            SCOPED_TRACE(::testing::Message() << "format " << row[0] << " bgr " << bgr);
            TensorPtr in = Make({4, 6, 4}), out = Make({3, 4, 6}, 0);
            Tensor *const in_before = in.get(), *const out_before = out.get();
            proc.calls.clear();
            (bgr ? quvas::kit::ConvertColorProcessSSEToBGRTensor : quvas::kit::ConvertColorProcessSSE)(
                in, out, fmt, &proc, ctx);
            ASSERT_EQ(proc.calls.size(), 1u);
            const Call& c = proc.calls[0];
            // The caller's own tensors reach the core, and stay the caller's.
            EXPECT_EQ(std::make_tuple(c.code, c.with_box, c.in, c.out, in.get(), out.get(), c.ctx),
                      std::make_tuple(row[1 + bgr], false, in_before, out_before, in_before, out_before,
                                      ctx.get()));
            EXPECT_GE(c.ctx_uses, 2);  // the core got a copy of the context
        }
    }
    EXPECT_EQ(ctx.use_count(), 1);
}

// ---------------------------------------------------------------------------
// Orientation transform.
// ---------------------------------------------------------------------------

// No turn and no flip (also a bit outside the tested set): the output is the
// input itself. Either flip bit, or both: the mirror, from the input.
TEST_F(TensorPipeline, TransformWithoutTurnSharesTheInputOrMirrorsIt) {
    for (unsigned flags : {0x00u, 0x20u, 0x08u, 0x10u, 0x18u}) {
        SCOPED_TRACE(flags);
        TensorPtr in = Make({2, 3, 4}, 0, 0x11), out = Make({2, 3, 4}, 0, 0x22);
        Tensor* const out_before = out.get();
        proc.calls.clear();
        Transform(in, out, flags);
        EXPECT_EQ(ctx.use_count(), 1);
        if (!(flags & 0x18u)) {
            EXPECT_TRUE(proc.calls.empty());
            EXPECT_EQ(out.get(), in.get());
            EXPECT_EQ(in.use_count(), 2);
            continue;
        }
        ASSERT_EQ(Codes(proc), std::vector<int>({53}));
        const Call& c = proc.calls[0];
        EXPECT_EQ(std::make_tuple(c.in, c.out, out.get(), c.with_box),
                  std::make_tuple(in.get(), out_before, out_before, false));
    }
}

// Quarter turns exchange the last two dims of the intermediate; the half turn
// keeps a whole copy of the input's shape. Only one turn code ever runs.
TEST_F(TensorPipeline, TransformTurnCodesAndIntermediateShapes) {
    struct Case {
        unsigned flags;
        std::vector<int> codes;
        bool quarter;
    };
    const Case cases[] = {
        {0x01, {52}, true},      {0x02, {50}, true},      {0x04, {51}, false},
        {0x40, {51}, false},     {0x44, {51}, false},     {0x03, {52}, true},
        {0x05, {52}, true},      {0x06, {50}, true},      {0x07, {52}, true},
        {0x42, {50}, true},      {0x13, {52, 53}, true},  {0x0A, {50, 53}, true},
        {0x14, {51, 53}, false}, {0x48, {51, 53}, false}, {0x1F, {52, 53}, true},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(::testing::Message() << "flags 0x" << std::hex << k.flags);
        TensorShape in_shape({2, 3, 4}, 7, 1);
        in_shape.extra.step_size = 9;
        in_shape.extra.serializable_type = "in-extra";
        in_shape.serializable_type = "in-type";
        TensorPtr in = device.CreateTensor(in_shape, nullptr), out = Make({2, 4, 3}, 0, 0x5C);
        Tensor* const out_before = out.get();
        proc.calls.clear();
        Transform(in, out, k.flags);
        ASSERT_EQ(Codes(proc), k.codes);
        const Call& first = proc.calls[0];
        EXPECT_EQ(first.in, in.get());
        EXPECT_TRUE(first.out_owns && first.out != in.get() && first.out != out_before);
        EXPECT_EQ(Fields(first.out_shape),
                  k.quarter ? ShapeFields({2, 4, 3}, 7, 0, 0x10001u, 0, "", "TensorShape")
                            : ShapeFields({2, 3, 4}, 7, 1, 0x10001u, 9, "in-extra", "in-type"));
        // The intermediate was made on the context's device and owns its storage.
        if (k.codes.size() == 1) {
            // No mirror: the caller's output now is the intermediate.
            EXPECT_EQ(std::make_tuple(out.get(), out->device(), out.use_count(), out->owns_data()),
                      std::make_tuple(first.out, &device, 1L, true));
            EXPECT_EQ(out->byte_size(), out->shape().ByteSize());
        } else {
            // Mirror from the intermediate into the caller's own output; the
            // intermediate is gone once the call returns.
            EXPECT_EQ(std::make_tuple(proc.calls[1].in, proc.calls[1].out, out.get()),
                      std::make_tuple(first.out, out_before, out_before));
            EXPECT_TRUE(first.out_ref.expired());
        }
        EXPECT_EQ(std::make_pair(in.use_count(), ctx.use_count()), std::make_pair(1L, 1L));
    }
}

TEST_F(TensorPipeline, TransformReleasesEverythingWhenTheCoreThrows) {
    TensorPtr in = Make({2, 3, 4}, 0), out = Make({2, 4, 3}, 0);
    Tensor* const out_before = out.get();
    // The mirror after a quarter turn fails, or the half turn itself.
    const std::pair<unsigned, std::vector<int>> cases[] = {{0x11, {52, 53}}, {0x04, {51}}};
    for (const auto& [flags, codes] : cases) {
        proc.calls.clear();
        proc.throw_on_code = codes.back();
        EXPECT_THROW(Transform(in, out, flags), std::runtime_error);
        ASSERT_EQ(Codes(proc), codes);
        EXPECT_TRUE(proc.calls[0].out_ref.expired());
        EXPECT_EQ(std::make_tuple(out.get(), in.use_count(), ctx.use_count()),
                  std::make_tuple(out_before, 1L, 1L));
    }
}

// The no-turn path still allocates a tensor of the input's shape and drops
// it. An input whose storage could never be allocated (an external view of
// 2^60 bytes that nothing reads) makes that allocation visible.
TEST_F(TensorPipeline, TransformWithoutTurnStillAllocatesTheInputShape) {
    static uint8_t byte = 0;
    TensorPtr in = device.CreateTensorExternal(
        TensorShape({1 << 20, 1 << 20, 1 << 20}, 7, 0), &byte);
    for (unsigned flags : {0x00u, 0x08u, 0x10u, 0x20u}) {
        SCOPED_TRACE(flags);
        TensorPtr out = Make({1, 1, 1});
        Tensor* const out_before = out.get();
        proc.calls.clear();
        EXPECT_THROW(Transform(in, out, flags), std::bad_alloc);
        EXPECT_TRUE(proc.calls.empty());
        EXPECT_EQ(std::make_pair(out.get(), in.use_count()), std::make_pair(out_before, 1L));
    }
}

// ---------------------------------------------------------------------------
// Resize and crop-resize.
// ---------------------------------------------------------------------------

TEST_F(TensorPipeline, PackedFormatsResizeWithOneCall) {
    const int cases[][3] = {{10, 83, 87}, {11, 83, 87}, {5, 84, 88}, {6, 84, 88}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k[0]);
        TensorPtr in = Make({8, 6, 4}), out = Make({4, 3, 4});
        Tensor *const in_before = in.get(), *const out_before = out.get();
        proc.calls.clear();
        quvas::kit::ResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(k[0]), &proc, ctx);
        quvas::kit::CropResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(k[0]), &proc, ctx,
                                         0.125f, -0.5f, 0.875f, 1.25f);
        ASSERT_EQ(Codes(proc), std::vector<int>({k[1], k[2]}));
        for (const Call& c : proc.calls) {
            EXPECT_EQ(std::make_tuple(c.in, c.out, c.ctx), std::make_tuple(in_before, out_before, ctx.get()));
        }
        EXPECT_FALSE(proc.calls[0].with_box);
        EXPECT_TRUE(proc.calls[1].with_box && SameBox(proc.calls[1].box, {0.125f, -0.5f, 0.875f, 1.25f}));
        EXPECT_EQ(std::make_tuple(in.get(), out.get(), ctx.use_count()),
                  std::make_tuple(in_before, out_before, 1L));
    }
}

struct PlaneExpect {
    std::vector<int32_t> dims;
    ptrdiff_t offset;
};

// A plane view over the caller's storage: a u8 plane at `offset`, not owned.
void ExpectPlaneView(const TensorShape& shape, uint8_t* data, bool owns, const uint8_t* base,
                     const PlaneExpect& want) {
    EXPECT_EQ(std::make_tuple(Fields(shape), data - base, owns),
              std::make_tuple(ShapeFields(want.dims, 7, 23, 0x10001u, 0, "", "TensorShape"), want.offset, false));
}

// Three-plane 4:2:0: luma, then two chroma planes, each a view over the
// caller's storage; the same views over the output; luma first.
TEST_F(TensorPipeline, PlanarYUVGoesPlaneByPlaneThroughViews) {
    struct Case {
        std::vector<int32_t> in_dims, out_dims;
        PlaneExpect in_planes[3], out_planes[3];
    };
    // {in dims}, {out dims}, then the three views over each: {dims, offset}.
    const Case cases[] = {
        {{4, 6}, {2, 4}, {{{4, 6, 1}, 0}, {{2, 3, 1}, 24}, {{2, 3, 1}, 30}},
         {{{2, 4, 1}, 0}, {{1, 2, 1}, 8}, {{1, 2, 1}, 10}}},
        // Odd sizes: the chroma planes are the halved dims, and the second
        // one starts a quarter of the luma size after the first.
        {{5, 7}, {6, 10}, {{{5, 7, 1}, 0}, {{2, 3, 1}, 35}, {{2, 3, 1}, 43}},
         {{{6, 10, 1}, 0}, {{3, 5, 1}, 60}, {{3, 5, 1}, 75}}},
        // Extra dims are ignored: only the first two are read.
        {{8, 4, 1}, {4, 2, 3}, {{{8, 4, 1}, 0}, {{4, 2, 1}, 32}, {{4, 2, 1}, 40}},
         {{{4, 2, 1}, 0}, {{2, 1, 1}, 8}, {{2, 1, 1}, 10}}},
    };
    for (const Case& k : cases) {
        for (int crop = 0; crop < 2; ++crop) {
            SCOPED_TRACE(::testing::Message() << "in " << k.in_dims[0] << "x" << k.in_dims[1]
                                              << " crop " << crop);
            // Storage generous enough for every view, whatever the dims say.
            std::vector<uint8_t> in_buf(4096), out_buf(4096);
            TensorPtr in = device.CreateTensorExternal(TensorShape(k.in_dims, 7, 1), in_buf.data());
            TensorPtr out = device.CreateTensorExternal(TensorShape(k.out_dims, 7, 1), out_buf.data());
            Tensor* const out_before = out.get();
            proc.calls.clear();
            if (crop) {
                quvas::kit::CropResizeProcessSSE(in, out, QVN_PIX_FMT_YUV420_A, &proc, ctx, 0.25f,
                                                 0.1f, 0.75f, std::nextafter(1.0f, 2.0f));
            } else {
                quvas::kit::ResizeProcessSSE(in, out, QVN_PIX_FMT_YUV420_A, &proc, ctx);
            }
            ASSERT_EQ(Codes(proc), std::vector<int>(3, crop ? 85 : 77));
            for (int i = 0; i < 3; ++i) {
                SCOPED_TRACE(i);
                const Call& c = proc.calls[i];
                ExpectPlaneView(c.in_shape, c.in_data, c.in_owns, in->data(), k.in_planes[i]);
                ExpectPlaneView(c.out_shape, c.out_data, c.out_owns, out->data(),
                                k.out_planes[i]);
                EXPECT_EQ(c.with_box, crop == 1);
                EXPECT_TRUE(!crop || SameBox(c.box, {0.25f, 0.1f, 0.75f, std::nextafter(1.0f, 2.0f)}));
                EXPECT_EQ(c.ctx, ctx.get());
                EXPECT_TRUE(c.in_ref.expired() && c.out_ref.expired());  // views released on return
            }
            EXPECT_EQ(std::make_tuple(out.get(), in.use_count(), ctx.use_count()),
                      std::make_tuple(out_before, 1L, 1L));
        }
    }
}

TEST_F(TensorPipeline, PlaneViewsAreReleasedWhenTheCoreThrows) {
    TensorPtr in = device.CreateTensor(TensorShape({4, 6}, 7, 24), nullptr),
              out = device.CreateTensor(TensorShape({2, 4}, 7, 24), nullptr);
    for (int code : {77, 85}) {  // the resize and the crop-resize of the luma plane
        proc.calls.clear();
        proc.throw_on_code = code;
        EXPECT_THROW(code == 77 ? quvas::kit::ResizeProcessSSE(in, out, QVN_PIX_FMT_YUV420_A, &proc, ctx)
                                : quvas::kit::CropResizeProcessSSE(in, out, QVN_PIX_FMT_YUV420_A, &proc,
                                                                   ctx, 0, 0, 1, 1),
                     std::runtime_error);
        ASSERT_EQ(proc.calls.size(), 1u);
        EXPECT_TRUE(proc.calls[0].in_ref.expired() && proc.calls[0].out_ref.expired());
        EXPECT_EQ(ctx.use_count(), 1);
    }
}

TEST_F(TensorPipeline, OtherFormatsAreIgnoredSilently) {
    for (int fmt : {0, 2, 3, 4, 7, 8, 9, 12, 13, 14, 15}) {
        SCOPED_TRACE(fmt);
        TensorPtr in = Make({4, 6, 4}, 1, 0x33), out = Make({2, 3, 4}, 1, 0x44);
        Tensor* const out_before = out.get();
        proc.calls.clear();
        quvas::kit::ResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(fmt), &proc, ctx);
        quvas::kit::CropResizeProcessSSE(in, out, static_cast<QVN_PIX_FMT>(fmt), &proc, ctx, 0.f,
                                         0.f, 1.f, 1.f);
        EXPECT_TRUE(proc.calls.empty());
        EXPECT_EQ(out.get(), out_before);
        EXPECT_TRUE(qvntest::AllBytes(out, 0x44));
    }
}

}  // namespace
