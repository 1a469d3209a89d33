// tensor.cpp - shapes, tensors and the CPU device.
#include <quvas/runtime/tensor.h>

#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <limits>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

namespace quvas {
namespace runtime {

namespace {

constexpr size_t kAlignment = 64;  // one cache line; also enough for AVX-512 loads

std::string DimsText(const std::vector<int32_t>& dims) {
    std::string text = "{";
    for (size_t i = 0; i < dims.size(); ++i) {
        if (i) text += ", ";
        text += std::to_string(dims[i]);
    }
    return text + "}";
}

}  // namespace

AttrVisitor::~AttrVisitor() = default;
Serializable::~Serializable() = default;

void TensorShape::Extra::VisitAttr(AttrVisitor& visitor) {
    visitor.Visit("serializable_type", serializable_type);
    visitor.Visit("step_size", step_size);
}

TensorShape::TensorShape() = default;

TensorShape::TensorShape(std::vector<int32_t> dims_in, int32_t data_type_in, int32_t layout_in,
                         uint32_t location_in)
    : dims(std::move(dims_in)), data_type(data_type_in), layout(layout_in), location(location_in) {}

void TensorShape::VisitAttr(AttrVisitor& visitor) {
    visitor.Visit("serializable_type", serializable_type);
    visitor.Visit("dims", dims);
    visitor.Visit("data_type", data_type);
    visitor.Visit("layout", layout);
    visitor.Visit("location", location);
    visitor.Visit("extra", extra);
}

size_t TensorShape::ElementSize() const {
    switch (data_type) {
        case data_type::kUInt8:
        case data_type::kInt8:
            return 1;
        case data_type::kFloat16:
        case data_type::kInt16:
        case data_type::kUInt16:
            return 2;
        case data_type::kFloat32:
        case data_type::kInt32:
            return 4;
        case data_type::kFloat64:
        case data_type::kInt64:
            return 8;
        default:
            throw std::invalid_argument("TensorShape: unknown data type code " +
                                        std::to_string(data_type));
    }
}

size_t TensorShape::ByteSize() const {
    if (dims.empty()) throw std::invalid_argument("TensorShape: a tensor needs at least one dim");
    size_t count = 1;
    for (int32_t d : dims) {
        if (d <= 0) {
            throw std::invalid_argument("TensorShape: dims " + DimsText(dims) +
                                        " must all be positive");
        }
        if (count > std::numeric_limits<size_t>::max() / static_cast<size_t>(d)) {
            throw std::invalid_argument("TensorShape: dims " + DimsText(dims) +
                                        " overflow the byte size");
        }
        count *= static_cast<size_t>(d);
    }
    size_t bytes = count;
    // A three-plane 4:2:0 frame carries two quarter-size chroma planes after
    // its luma plane.
    if (layout == layout::kYUV420Planar && dims.size() >= 2) {
        const size_t chroma = static_cast<size_t>(dims[0] / 2) * static_cast<size_t>(dims[1] / 2);
        if (bytes > std::numeric_limits<size_t>::max() - 2 * chroma) {
            throw std::invalid_argument("TensorShape: dims " + DimsText(dims) +
                                        " overflow the byte size");
        }
        bytes += 2 * chroma;
    }
    const size_t element = ElementSize();
    if (bytes > std::numeric_limits<size_t>::max() / element) {
        throw std::invalid_argument("TensorShape: dims " + DimsText(dims) +
                                    " overflow the byte size");
    }
    return bytes * element;
}

// Freed owned storage of one device, kept for the next tensor of the same
// size. Intermediate tensors of a frame converter are created and freed on
// every frame; the allocator hands large blocks back to the system, so each
// frame would otherwise fault its pages in afresh (about a quarter of the
// time of a 1080p conversion). Shared by the device and its owned tensors:
// a tensor that outlives its device frees its storage itself.
namespace detail {

class StorageCache {
public:
    StorageCache() = default;
    StorageCache(const StorageCache&) = delete;
    StorageCache& operator=(const StorageCache&) = delete;
    ~StorageCache() { Close(); }

    // A cached block of at least `bytes` and at most twice that, the
    // smallest such; null when there is none.
    void* Take(size_t bytes, size_t* capacity) {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t best = blocks_.size();
        for (size_t i = 0; i < blocks_.size(); ++i) {
            const size_t cap = blocks_[i].capacity;
            if (cap >= bytes && cap / 2 <= bytes && (best == blocks_.size() || cap < blocks_[best].capacity)) {
                best = i;
            }
        }
        if (best == blocks_.size()) return nullptr;
        void* data = blocks_[best].data;
        *capacity = blocks_[best].capacity;
        bytes_ -= *capacity;
        blocks_.erase(blocks_.begin() + static_cast<ptrdiff_t>(best));
        return data;
    }

    // Keeps a freed block, dropping the oldest ones beyond the bounds; frees
    // it at once after Close.
    void Give(void* data, size_t capacity) {
        std::vector<void*> drop;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (closed_ || capacity > DeviceCPU::kCacheBytes) {
                drop.push_back(data);
            } else {
                blocks_.push_back({data, capacity});
                bytes_ += capacity;
                size_t keep_from = 0;
                size_t bytes = bytes_;
                while (bytes > DeviceCPU::kCacheBytes || blocks_.size() - keep_from > DeviceCPU::kCacheBlocks) {
                    bytes -= blocks_[keep_from].capacity;
                    drop.push_back(blocks_[keep_from].data);
                    ++keep_from;
                }
                blocks_.erase(blocks_.begin(), blocks_.begin() + static_cast<ptrdiff_t>(keep_from));
                bytes_ = bytes;
            }
        }
        for (void* p : drop) std::free(p);
    }

    // Frees every cached block; later Gives free directly.
    void Close() {
        std::vector<Block> blocks;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
            blocks.swap(blocks_);
            bytes_ = 0;
        }
        for (const Block& b : blocks) std::free(b.data);
    }

    size_t Bytes() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return bytes_;
    }

private:
    struct Block {
        void* data;
        size_t capacity;
    };
    mutable std::mutex mutex_;
    std::vector<Block> blocks_;  // oldest first
    size_t bytes_ = 0;
    bool closed_ = false;
};

}  // namespace detail

Tensor::Tensor(const TensorShape& shape, uint8_t* data, size_t bytes, bool owned,
               DeviceCPU* device)
    : shape_(shape), data_(data), bytes_(bytes), owned_(owned), device_(device) {}

Tensor::~Tensor() {
    if (!owned_) return;
    if (cache_) {
        cache_->Give(data_, capacity_);
    } else {
        std::free(data_);
    }
}

DeviceCPU::DeviceCPU() : cache_(std::make_shared<detail::StorageCache>()) {}
DeviceCPU::~DeviceCPU() { cache_->Close(); }

size_t DeviceCPU::CachedBytes() const { return cache_->Bytes(); }

TensorPtr DeviceCPU::CreateTensor(const TensorShape& shape, const void* data) {
    const size_t bytes = shape.ByteSize();
    // aligned_alloc wants a multiple of the alignment.
    const size_t rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    if (rounded < bytes) throw std::bad_alloc();
    size_t capacity = rounded;
    void* storage = cache_->Take(rounded, &capacity);
    if (storage == nullptr) {
        storage = std::aligned_alloc(kAlignment, rounded);
        if (storage == nullptr) throw std::bad_alloc();
        capacity = rounded;
    }
    // Without data the storage is left as it is (fresh from the allocator or
    // last frame's bytes): every kernel writes its whole destination, and a
    // fill would cost a full pass over memory on every frame (68 us for a
    // 1000x1000 BGRA crop).
    if (data != nullptr) std::memcpy(storage, data, bytes);
    try {
        TensorPtr t(new Tensor(shape, static_cast<uint8_t*>(storage), bytes, true, this));
        t->cache_ = cache_;
        t->capacity_ = capacity;
        return t;
    } catch (...) {
        cache_->Give(storage, capacity);
        throw;
    }
}

TensorPtr DeviceCPU::CreateTensorExternal(const TensorShape& shape, void* data) {
    const size_t bytes = shape.ByteSize();
    return TensorPtr(new Tensor(shape, static_cast<uint8_t*>(data), bytes, false, this));
}

namespace {

TensorShape HWC8(unsigned h, unsigned w, int32_t c) {
    if (h > static_cast<unsigned>(std::numeric_limits<int32_t>::max()) ||
        w > static_cast<unsigned>(std::numeric_limits<int32_t>::max())) {
        throw std::invalid_argument("DeviceCPU: image size " + std::to_string(h) + "x" +
                                    std::to_string(w) + " does not fit a tensor dim");
    }
    return TensorShape({static_cast<int32_t>(h), static_cast<int32_t>(w), c}, data_type::kUInt8,
                       layout::kHWC);
}

TensorShape YUV420Planar(unsigned h, unsigned w) {
    TensorShape shape = HWC8(h, w, 1);
    shape.layout = layout::kYUV420Planar;
    return shape;
}

}  // namespace

TensorPtr DeviceCPU::CreateYPlane8BitTensor(const unsigned& h, const unsigned& w, const void* data) {
    return CreateTensor(HWC8(h, w, 1), data);
}
TensorPtr DeviceCPU::CreateUVPlane8BitTensor(const unsigned& h, const unsigned& w,
                                             const void* data) {
    return CreateTensor(HWC8(h, w, 2), data);
}
TensorPtr DeviceCPU::CreateBGRA8888Tensor(const unsigned& h, const unsigned& w, const void* data) {
    return CreateTensor(HWC8(h, w, 4), data);
}
TensorPtr DeviceCPU::CreateRGBA8888Tensor(const unsigned& h, const unsigned& w, const void* data) {
    return CreateTensor(HWC8(h, w, 4), data);
}
TensorPtr DeviceCPU::CreateYUV420PlanarTensor(const unsigned& h, const unsigned& w,
                                              const void* data) {
    return CreateTensor(YUV420Planar(h, w), data);
}
TensorPtr DeviceCPU::CreateYPlane8BitTensorExternal(const unsigned& h, const unsigned& w,
                                                    void* data) {
    return CreateTensorExternal(HWC8(h, w, 1), data);
}
TensorPtr DeviceCPU::CreateUVPlane8BitTensorExternal(const unsigned& h, const unsigned& w,
                                                     void* data) {
    return CreateTensorExternal(HWC8(h, w, 2), data);
}
TensorPtr DeviceCPU::CreateBGRA8888TensorExternal(const unsigned& h, const unsigned& w,
                                                  void* data) {
    return CreateTensorExternal(HWC8(h, w, 4), data);
}
TensorPtr DeviceCPU::CreateRGBA8888TensorExternal(const unsigned& h, const unsigned& w,
                                                  void* data) {
    return CreateTensorExternal(HWC8(h, w, 4), data);
}
TensorPtr DeviceCPU::CreateYUV420PlanarTensorExternal(const unsigned& h, const unsigned& w,
                                                      void* data) {
    return CreateTensorExternal(YUV420Planar(h, w), data);
}

}  // namespace runtime
}  // namespace quvas
