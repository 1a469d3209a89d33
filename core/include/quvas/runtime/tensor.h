// tensor.h - tensors of the core runtime: shapes, storage, the CPU device.
//
// A Tensor is a shape, a data pointer and the device that made it; it is held
// by std::shared_ptr. Owned storage is 64-byte aligned and freed with the last
// reference; an external tensor wraps caller memory and never frees it. The
// device must outlive the tensors it makes.
#ifndef QUVAS_RUNTIME_TENSOR_H
#define QUVAS_RUNTIME_TENSOR_H

#include <quvas/export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quvas {
namespace runtime {

// Element type codes (TensorShape::data_type).
namespace data_type {
constexpr int32_t kUnknown = 0;
constexpr int32_t kFloat32 = 1;
constexpr int32_t kFloat16 = 2;
constexpr int32_t kInt32 = 3;
constexpr int32_t kInt16 = 4;
constexpr int32_t kInt8 = 5;
constexpr int32_t kUInt16 = 6;
constexpr int32_t kUInt8 = 7;
constexpr int32_t kFloat64 = 8;
constexpr int32_t kInt64 = 9;
}  // namespace data_type

// Layout codes (TensorShape::layout).
namespace layout {
constexpr int32_t kCHW = 0;   // planar, dims {C, H, W}
constexpr int32_t kHWC = 1;   // interleaved, dims {H, W, C}
constexpr int32_t kPlane = 23;  // one plane of a multi-plane image, dims {H, W, 1}
// A whole three-plane 4:2:0 frame, dims {H, W, 1} of its luma; storage
// H*W + 2*(H/2)*(W/2) bytes: Y, then U, then V.
constexpr int32_t kYUV420Planar = 24;
}  // namespace layout

// Location codes (TensorShape::location).
namespace location {
constexpr uint32_t kMainMemory = 0x10001;
}  // namespace location

class Serializable;

// Receives a Serializable's attributes, in order, by name.
class QUVAS_API AttrVisitor {
public:
    virtual ~AttrVisitor();
    virtual void Visit(const char* key, std::string& value) = 0;
    virtual void Visit(const char* key, std::vector<int32_t>& value) = 0;
    virtual void Visit(const char* key, int32_t& value) = 0;
    virtual void Visit(const char* key, uint32_t& value) = 0;
    virtual void Visit(const char* key, uint16_t& value) = 0;
    virtual void Visit(const char* key, Serializable& value) = 0;
};

class QUVAS_API Serializable {
public:
    virtual ~Serializable();
    // Presents the named attributes, in their fixed order, to `visitor`.
    virtual void VisitAttr(AttrVisitor& visitor) = 0;
};

class QUVAS_API TensorShape : public Serializable {
public:
    class QUVAS_API Extra : public Serializable {
    public:
        // Visited as "serializable_type", "step_size".
        void VisitAttr(AttrVisitor& visitor) override;
        std::string serializable_type;
        uint16_t step_size = 0;
    };

    TensorShape();
    TensorShape(std::vector<int32_t> dims, int32_t data_type, int32_t layout,
                uint32_t location = location::kMainMemory);

    // Visited as "serializable_type", "dims", "data_type", "layout",
    // "location", "extra".
    void VisitAttr(AttrVisitor& visitor) override;

    // Bytes of one element of data_type; throws std::invalid_argument for an
    // unknown code.
    size_t ElementSize() const;
    // Bytes of the whole tensor. Throws std::invalid_argument for no dims, a
    // dim <= 0, or a size that overflows.
    size_t ByteSize() const;

    std::string serializable_type = "TensorShape";
    std::vector<int32_t> dims;
    int32_t data_type = data_type::kUInt8;
    int32_t layout = layout::kHWC;
    uint32_t location = location::kMainMemory;
    Extra extra;
};

class DeviceCPU;

namespace detail {
class StorageCache;
}

class QUVAS_API Tensor {
public:
    ~Tensor();
    Tensor(const Tensor&) = delete;
    Tensor& operator=(const Tensor&) = delete;

    const TensorShape& shape() const { return shape_; }
    // Start of the storage.
    uint8_t* data() const { return data_; }
    template <typename T>
    T* data_as() const {
        return reinterpret_cast<T*>(data_);
    }
    DeviceCPU* device() const { return device_; }
    size_t byte_size() const { return bytes_; }
    bool owns_data() const { return owned_; }

private:
    friend class DeviceCPU;
    Tensor(const TensorShape& shape, uint8_t* data, size_t bytes, bool owned, DeviceCPU* device);

    TensorShape shape_;
    uint8_t* data_;
    size_t bytes_;
    bool owned_;
    DeviceCPU* device_;
    // Owned storage goes back to the device's cache (kept alive by this
    // reference even when the device is gone) instead of to the allocator.
    std::shared_ptr<detail::StorageCache> cache_;
    size_t capacity_ = 0;
};

using TensorPtr = std::shared_ptr<Tensor>;

class QUVAS_API DeviceCPU {
public:
    DeviceCPU();
    ~DeviceCPU();
    DeviceCPU(const DeviceCPU&) = delete;
    DeviceCPU& operator=(const DeviceCPU&) = delete;

    // Owned storage; `data` (when not null) is copied in, otherwise the
    // storage is left uninitialised (fill it yourself if you read it first).
    // Storage freed by owned tensors is kept for reuse by later tensors of
    // the same size, up to kCacheBytes and kCacheBlocks, and released with
    // the device; so a steady stream of same-sized frames takes no fresh
    // pages (no page faults) after the first. Safe to call from several
    // threads at once.
    TensorPtr CreateTensor(const TensorShape& shape, const void* data);

    static constexpr size_t kCacheBytes = size_t{64} << 20;
    static constexpr size_t kCacheBlocks = 32;
    // Bytes of freed storage held for reuse now.
    size_t CachedBytes() const;
    // Wraps `data` (which must hold shape.ByteSize() bytes); never frees it.
    TensorPtr CreateTensorExternal(const TensorShape& shape, void* data);

    // u8 HWC creators: Y {h, w, 1}; UV {h, w, 2} (h x w chroma pairs);
    // BGRA and RGBA {h, w, 4}. Owned forms copy `data` in when not null.
    TensorPtr CreateYPlane8BitTensor(const unsigned& h, const unsigned& w, const void* data);
    TensorPtr CreateUVPlane8BitTensor(const unsigned& h, const unsigned& w, const void* data);
    TensorPtr CreateBGRA8888Tensor(const unsigned& h, const unsigned& w, const void* data);
    TensorPtr CreateRGBA8888Tensor(const unsigned& h, const unsigned& w, const void* data);
    // A three-plane 4:2:0 frame of luma size h x w (layout kYUV420Planar).
    TensorPtr CreateYUV420PlanarTensor(const unsigned& h, const unsigned& w, const void* data);

    TensorPtr CreateYPlane8BitTensorExternal(const unsigned& h, const unsigned& w, void* data);
    TensorPtr CreateUVPlane8BitTensorExternal(const unsigned& h, const unsigned& w, void* data);
    TensorPtr CreateBGRA8888TensorExternal(const unsigned& h, const unsigned& w, void* data);
    TensorPtr CreateRGBA8888TensorExternal(const unsigned& h, const unsigned& w, void* data);
    TensorPtr CreateYUV420PlanarTensorExternal(const unsigned& h, const unsigned& w, void* data);

private:
    std::shared_ptr<detail::StorageCache> cache_;
};

// What a core call runs on. The device is the first member.
struct QUVAS_API Context {
    DeviceCPU* device = nullptr;
};

}  // namespace runtime
}  // namespace quvas

#endif  // QUVAS_RUNTIME_TENSOR_H
