// Tensor shapes, storage and ownership of the core runtime.
#include <quvas/runtime/tensor.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
// The allocation-failure test asks for 2^63 bytes; let the sanitizer's
// allocator return null (as the C library does) instead of aborting. The
// runtime looks the hook up dynamically, so it must be visible.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

namespace rt = quvas::runtime;
using rt::TensorPtr;
using rt::TensorShape;

// ---------------------------------------------------------------------------
// Codes and attributes
// ---------------------------------------------------------------------------

// The code values themselves appear in every refusal message checked by the
// kernel tests; here only the defaults of an empty shape.
TEST(TensorCodes, Defaults) {
    const TensorShape shape;
    EXPECT_EQ(shape.serializable_type, "TensorShape");
    EXPECT_TRUE(shape.dims.empty());
    EXPECT_EQ(shape.data_type, 7);
    EXPECT_EQ(shape.layout, 1);
    EXPECT_EQ(shape.location, 0x10001u);
}

// Records every key with a printable value, descending into nested
// serializables.
class Recorder : public rt::AttrVisitor {
public:
    std::vector<std::string> seen;
    void Visit(const char* key, std::string& value) override { seen.push_back(std::string(key) + "=" + value); }
    void Visit(const char* key, std::vector<int32_t>& value) override {
        std::string text = std::string(key) + "=[";
        for (size_t i = 0; i < value.size(); ++i) text += (i ? "," : "") + std::to_string(value[i]);
        seen.push_back(text + "]");
    }
    void Visit(const char* key, int32_t& value) override { seen.push_back(std::string(key) + "=i" + std::to_string(value)); }
    void Visit(const char* key, uint32_t& value) override { seen.push_back(std::string(key) + "=u" + std::to_string(value)); }
    void Visit(const char* key, uint16_t& value) override { seen.push_back(std::string(key) + "=s" + std::to_string(value)); }
    void Visit(const char* key, rt::Serializable& value) override {
        seen.push_back(std::string(key) + "{");
        value.VisitAttr(*this);
        seen.push_back("}");
    }
};

TEST(TensorShapeAttributes, VisitedInFixedOrderWithTheirTypes) {
    TensorShape shape({2, 3, 4}, rt::data_type::kFloat32, rt::layout::kCHW);
    shape.extra.serializable_type = "Extra";
    shape.extra.step_size = 17;
    Recorder recorder;
    shape.VisitAttr(recorder);
    const std::vector<std::string> want = {
        "serializable_type=TensorShape", "dims=[2,3,4]", "data_type=i1", "layout=i0",
        "location=u65537", "extra{", "serializable_type=Extra", "step_size=s17", "}"};
    EXPECT_EQ(recorder.seen, want);
}

// A visitor may change the attributes it is shown.
TEST(TensorShapeAttributes, VisitorWritesThrough) {
    class Setter : public Recorder {
    public:
        void Visit(const char* key, int32_t& value) override {
            if (std::string(key) == "layout") value = rt::layout::kPlane;
        }
        using Recorder::Visit;
    };
    TensorShape shape({5}, rt::data_type::kUInt8, rt::layout::kHWC);
    Setter setter;
    shape.VisitAttr(setter);
    EXPECT_EQ(shape.layout, rt::layout::kPlane);
}

// ---------------------------------------------------------------------------
// Sizes
// ---------------------------------------------------------------------------

TEST(TensorSize, ElementSizes) {
    const std::pair<int32_t, size_t> sizes[] = {{1, 4}, {2, 2}, {3, 4}, {4, 2}, {5, 1},
                                                {6, 2}, {7, 1}, {8, 8}, {9, 8}};
    for (const auto& s : sizes) {
        EXPECT_EQ(TensorShape({1}, s.first, rt::layout::kHWC).ElementSize(), s.second) << s.first;
    }
    for (int32_t bad : {0, 10, -1, 1000}) {
        EXPECT_THROW(TensorShape({1}, bad, rt::layout::kHWC).ElementSize(), std::invalid_argument) << bad;
        EXPECT_THROW(TensorShape({1}, bad, rt::layout::kHWC).ByteSize(), std::invalid_argument) << bad;
    }
}

TEST(TensorSize, ByteSizes) {
    EXPECT_EQ(TensorShape({2, 3, 4}, rt::data_type::kUInt8, rt::layout::kHWC).ByteSize(), 24u);
    EXPECT_EQ(TensorShape({2, 3, 4}, rt::data_type::kFloat32, rt::layout::kCHW).ByteSize(), 96u);
    EXPECT_EQ(TensorShape({7}, rt::data_type::kFloat64, rt::layout::kHWC).ByteSize(), 56u);
    // A three-plane 4:2:0 frame: luma, then two quarter-size chroma planes
    // (halves rounded down).
    EXPECT_EQ(TensorShape({4, 6, 1}, rt::data_type::kUInt8, rt::layout::kYUV420Planar).ByteSize(),
              24u + 2 * 2 * 3);
    EXPECT_EQ(TensorShape({5, 7, 1}, rt::data_type::kUInt8, rt::layout::kYUV420Planar).ByteSize(),
              35u + 2 * 2 * 3);
    EXPECT_EQ(TensorShape({1, 1, 1}, rt::data_type::kUInt8, rt::layout::kYUV420Planar).ByteSize(), 1u);
}

TEST(TensorSize, InvalidShapesThrowInvalidArgument) {
    const int32_t big = std::numeric_limits<int32_t>::max();
    const std::vector<TensorShape> bad = {
        TensorShape({}, rt::data_type::kUInt8, rt::layout::kHWC),
        TensorShape({0}, rt::data_type::kUInt8, rt::layout::kHWC),
        TensorShape({4, 0, 3}, rt::data_type::kUInt8, rt::layout::kHWC),
        TensorShape({4, -2, 3}, rt::data_type::kUInt8, rt::layout::kHWC),
        TensorShape({big, big, big}, rt::data_type::kUInt8, rt::layout::kHWC),  // 2^93
        // 2^62 elements fit size_t, but not times eight bytes.
        TensorShape({1 << 30, 1 << 30, 4}, rt::data_type::kFloat64, rt::layout::kHWC),
    };
    rt::DeviceCPU device;
    uint8_t byte = 0;
    for (const TensorShape& shape : bad) {
        EXPECT_THROW(shape.ByteSize(), std::invalid_argument);
        EXPECT_THROW(device.CreateTensor(shape, nullptr), std::invalid_argument);
        EXPECT_THROW(device.CreateTensorExternal(shape, &byte), std::invalid_argument);
    }
    // Sizes that do not fit a 32-bit dim, and zero sizes.
    EXPECT_THROW(device.CreateYPlane8BitTensor(3000000000u, 2, nullptr), std::invalid_argument);
    EXPECT_THROW(device.CreateBGRA8888TensorExternal(2, 3000000000u, &byte), std::invalid_argument);
    EXPECT_THROW(device.CreateUVPlane8BitTensor(0, 2, nullptr), std::invalid_argument);
    EXPECT_THROW(device.CreateYUV420PlanarTensor(2, 0, nullptr), std::invalid_argument);
}

TEST(TensorSize, UnallocatableSizeThrowsBadAlloc) {
    rt::DeviceCPU device;
    // 2^63 bytes: a valid size that no allocator gives.
    TensorShape huge({1 << 30, 1 << 30, 8}, rt::data_type::kUInt8, rt::layout::kHWC);
    EXPECT_EQ(huge.ByteSize(), size_t{1} << 63);
    EXPECT_THROW(device.CreateTensor(huge, nullptr), std::bad_alloc);
}

// ---------------------------------------------------------------------------
// Storage and ownership
// ---------------------------------------------------------------------------

// Freed owned storage stays with the device for the next tensor of its size
// (so a stream of same-sized frames takes no fresh pages), within bounds, and
// goes back to the allocator with the device; a tensor that outlives its
// device frees its own storage. Leaks and double frees show under the
// address sanitizer's leak checker.
TEST(TensorStorage, FreedStorageIsReusedWithinBoundsAndReleasedWithTheDevice) {
    auto device = std::make_unique<rt::DeviceCPU>();
    uint8_t* first = nullptr;
    {
        TensorPtr a = device->CreateBGRA8888Tensor(100, 100, nullptr);  // 40000 bytes, a multiple of 64
        first = a->data();
        EXPECT_EQ(device->CachedBytes(), 0u);
    }
    EXPECT_EQ(device->CachedBytes(), 40000u);
    // Too small to take that block: fresh storage, the block stays cached.
    TensorPtr tiny = device->CreateYPlane8BitTensor(2, 2, nullptr);
    EXPECT_NE(tiny->data(), first);
    EXPECT_EQ(device->CachedBytes(), 40000u);
    // The same size takes it back, and data given is still copied in.
    std::vector<uint8_t> bytes(40000);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
    TensorPtr b = device->CreateTensor(TensorShape({100, 100, 4}, rt::data_type::kUInt8, rt::layout::kHWC),
                                       bytes.data());
    EXPECT_EQ(b->data(), first);
    EXPECT_EQ(device->CachedBytes(), 0u);
    EXPECT_EQ(0, std::memcmp(b->data(), bytes.data(), bytes.size()));

    // Bounded in blocks and bytes: the oldest blocks go first.
    {
        std::vector<TensorPtr> many;
        for (size_t i = 0; i < rt::DeviceCPU::kCacheBlocks + 8; ++i)
            many.push_back(device->CreateYPlane8BitTensor(1024, 1024 + 64 * static_cast<unsigned>(i), nullptr));
    }
    EXPECT_LE(device->CachedBytes(), rt::DeviceCPU::kCacheBytes);
    EXPECT_GE(device->CachedBytes(), rt::DeviceCPU::kCacheBytes / 2);
    {
        const size_t before = device->CachedBytes();
        TensorPtr huge = device->CreateYPlane8BitTensor(
            static_cast<unsigned>(rt::DeviceCPU::kCacheBytes / 1024) + 1, 1024, nullptr);
        EXPECT_EQ(device->CachedBytes(), before);  // no cached block is large enough
        huge->data()[huge->byte_size() - 1] = 1;
        huge.reset();  // larger than the whole cache: straight back to the allocator
        EXPECT_EQ(device->CachedBytes(), before);
    }

    // Outliving the device: the storage stays valid and is freed with the tensor.
    b.reset();
    device.reset();
    tiny->data()[3] = 1;
    tiny.reset();
}

// External storage is never freed: the caller's buffer outlives the tensor
// and stays usable (a free would be a use-after-free or double free under
// the address sanitizer).
TEST(TensorStorage, ExternalStorageIsNeverFreed) {
    rt::DeviceCPU device;
    uint8_t* buffer = static_cast<uint8_t*>(std::malloc(6 * 4 * 4));
    ASSERT_NE(buffer, nullptr);
    std::memset(buffer, 3, 6 * 4 * 4);
    {
        TensorPtr t = device.CreateRGBA8888TensorExternal(6, 4, buffer);
        EXPECT_FALSE(t->owns_data());
        EXPECT_EQ(t->data(), buffer);
        EXPECT_EQ(t->byte_size(), 96u);
        t->data()[5] = 9;  // a view: writes land in the caller's buffer
    }
    EXPECT_EQ(buffer[5], 9);
    buffer[95] = 1;
    std::free(buffer);

    uint8_t on_stack[24];
    {
        TensorPtr t = device.CreateTensorExternal(
            TensorShape({2, 3, 4}, rt::data_type::kUInt8, rt::layout::kHWC), on_stack);
        EXPECT_EQ(t->data(), on_stack);
    }  // freeing a stack address would crash here
    std::memset(on_stack, 0, sizeof(on_stack));
}

struct Creator {
    const char* name;
    TensorPtr (rt::DeviceCPU::*owned)(const unsigned&, const unsigned&, const void*);
    TensorPtr (rt::DeviceCPU::*external)(const unsigned&, const unsigned&, void*);
    int32_t channels;  // 0 for the three-plane frame
};

TEST(TensorStorage, ImageCreatorsMakeU8HwcImagesOwnedOrViewed) {
    const Creator creators[] = {
        {"Y", &rt::DeviceCPU::CreateYPlane8BitTensor, &rt::DeviceCPU::CreateYPlane8BitTensorExternal, 1},
        {"UV", &rt::DeviceCPU::CreateUVPlane8BitTensor, &rt::DeviceCPU::CreateUVPlane8BitTensorExternal, 2},
        {"BGRA", &rt::DeviceCPU::CreateBGRA8888Tensor, &rt::DeviceCPU::CreateBGRA8888TensorExternal, 4},
        {"RGBA", &rt::DeviceCPU::CreateRGBA8888Tensor, &rt::DeviceCPU::CreateRGBA8888TensorExternal, 4},
        {"YUV420", &rt::DeviceCPU::CreateYUV420PlanarTensor,
         &rt::DeviceCPU::CreateYUV420PlanarTensorExternal, 0},
    };
    rt::DeviceCPU device;
    const unsigned h = 5, w = 7;
    std::vector<uint8_t> data(h * w * 4);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(3 * i + 1);
    for (const Creator& c : creators) {
        const size_t bytes = c.channels ? h * w * c.channels : h * w + 2 * (h / 2) * (w / 2);
        const std::vector<int32_t> dims = {5, 7, c.channels ? c.channels : 1};
        const int32_t layout = c.channels ? rt::layout::kHWC : rt::layout::kYUV420Planar;

        // dims, type, layout, location, bytes and ownership as one value.
        using Fields = std::tuple<std::vector<int32_t>, int32_t, int32_t, uint32_t, size_t, bool>;
        const auto fields = [](const TensorPtr& t) {
            const TensorShape& s = t->shape();
            return Fields{s.dims, s.data_type, s.layout, s.location, t->byte_size(), t->owns_data()};
        };
        const Fields own{dims, rt::data_type::kUInt8, layout, rt::location::kMainMemory, bytes, true};
        const Fields ext{dims, rt::data_type::kUInt8, layout, rt::location::kMainMemory, bytes, false};

        // Owned storage is a 64-byte aligned copy, not a view of the data given.
        TensorPtr owned = (device.*c.owned)(h, w, data.data());
        EXPECT_EQ(fields(owned), own) << c.name;
        EXPECT_EQ(0, std::memcmp(owned->data(), data.data(), bytes)) << c.name;
        EXPECT_TRUE(owned->data() != data.data() && reinterpret_cast<uintptr_t>(owned->data()) % 64 == 0);
        TensorPtr fresh = (device.*c.owned)(h, w, nullptr);
        EXPECT_EQ(fields(fresh), own) << c.name;
        std::memset(fresh->data(), 0xA5, bytes);
        TensorPtr view = (device.*c.external)(h, w, data.data());
        EXPECT_EQ(fields(view), ext) << c.name;
        EXPECT_EQ(view->data(), data.data()) << c.name;
    }
    // Without data, sized by the element type and wholly writable (the
    // address sanitizer flags a write past a short allocation).
    TensorPtr fresh = device.CreateTensor(TensorShape({3, 7}, rt::data_type::kFloat32, rt::layout::kCHW), nullptr);
    EXPECT_EQ(fresh->byte_size(), 84u);
    std::memset(fresh->data(), 0x5A, fresh->byte_size());
}

}  // namespace
