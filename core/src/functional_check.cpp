// functional_check.cpp - argument checks shared by the image kernels.
#include "functional_check.h"

#include <quvas/utility/log.h>

#include <algorithm>
#include <cstdio>
#include <limits>

namespace quvas {
namespace kernel {
namespace detail {

namespace {

// dims must be three positive values whose product fits the storage.
bool FillView(const runtime::TensorPtr& t, int d0, int d1, int d2, Image* image) {
    const auto& dims = t->shape().dims;
    if (dims[0] <= 0 || dims[1] <= 0 || dims[2] <= 0) return false;
    const size_t n0 = static_cast<size_t>(dims[0]);
    const size_t n1 = static_cast<size_t>(dims[1]);
    const size_t n2 = static_cast<size_t>(dims[2]);
    const size_t max = std::numeric_limits<size_t>::max();
    if (n0 > max / n1 || n0 * n1 > max / n2) return false;
    if (t->byte_size() < n0 * n1 * n2) return false;
    image->data = t->data();
    image->h = d0;
    image->w = d1;
    image->c = d2;
    image->extent = n0 * n1 * n2;
    return true;
}

bool IsU8(const runtime::TensorPtr& t) {
    return t && t->data() != nullptr && t->shape().data_type == runtime::data_type::kUInt8 &&
           t->shape().dims.size() == 3;
}

}  // namespace

bool AsHWC(const runtime::TensorPtr& t, Image* image) {
    if (!IsU8(t)) return false;
    const auto& s = t->shape();
    const bool layout_ok = s.layout == runtime::layout::kHWC ||
                           (s.layout == runtime::layout::kPlane && s.dims[2] == 1);
    if (!layout_ok) return false;
    return FillView(t, s.dims[0], s.dims[1], s.dims[2], image);
}

bool AsCHW(const runtime::TensorPtr& t, Image* image) {
    if (!IsU8(t)) return false;
    const auto& s = t->shape();
    if (s.layout != runtime::layout::kCHW) return false;
    return FillView(t, s.dims[1], s.dims[2], s.dims[0], image);
}

std::string ShapeText(const runtime::TensorPtr& t) {
    if (!t) return "null";
    const auto& s = t->shape();
    std::string text = "{";
    for (size_t i = 0; i < s.dims.size(); ++i) {
        if (i) text += ", ";
        text += std::to_string(s.dims[i]);
    }
    text += "} (type " + std::to_string(s.data_type) + ", layout " + std::to_string(s.layout) + ")";
    if (t->data() == nullptr) text += " without storage";
    return text;
}

bool AsImageProcessView(const runtime::TensorPtr& t, std::initializer_list<int32_t> layouts,
                        Image* image) {
    constexpr uint64_t kMaxBytes = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
    if (!t || t->data() == nullptr) return false;
    const runtime::TensorShape& s = t->shape();
    if (s.location != runtime::location::kMainMemory || s.data_type != runtime::data_type::kUInt8 ||
        s.dims.size() != 3)
        return false;
    if (std::find(layouts.begin(), layouts.end(), s.layout) == layouts.end()) return false;
    uint64_t n = 1;
    for (int32_t d : s.dims) {
        if (d <= 0) return false;
        n *= static_cast<uint64_t>(d);
        if (n > kMaxBytes) return false;
    }
    if (s.layout == runtime::layout::kYUV420Planar) {
        n += 2 * static_cast<uint64_t>(s.dims[0] / 2) * static_cast<uint64_t>(s.dims[1] / 2);
        if (n > kMaxBytes) return false;
    }
    if (t->byte_size() < n) return false;
    image->data = t->data();
    const bool planar = s.layout == runtime::layout::kCHW;
    image->h = planar ? s.dims[1] : s.dims[0];
    image->w = planar ? s.dims[2] : s.dims[1];
    image->c = planar ? s.dims[0] : s.dims[2];
    image->extent = static_cast<size_t>(n);
    return true;
}

std::string ShapeWords(const runtime::TensorPtr& t) {
    if (!t) return "null";
    const runtime::TensorShape& s = t->shape();
    std::string text = "{";
    for (size_t i = 0; i < s.dims.size(); ++i) {
        if (i) text += ", ";
        text += std::to_string(s.dims[i]);
    }
    text += "} type " + std::to_string(s.data_type) + " layout " + std::to_string(s.layout);
    if (s.location != runtime::location::kMainMemory) {
        char hex[16];
        std::snprintf(hex, sizeof(hex), "%#x", static_cast<unsigned>(s.location));
        text += " location ";
        text += hex;
    }
    if (t->data() == nullptr) text += " without storage";
    return text;
}

bool Overlap(const Image& a, const Image& b) {
    const uintptr_t a0 = reinterpret_cast<uintptr_t>(a.data);
    const uintptr_t b0 = reinterpret_cast<uintptr_t>(b.data);
    return a0 < b0 + b.bytes() && b0 < a0 + a.bytes();
}

void Refuse(const char* kernel, const runtime::TensorPtr& src, const runtime::TensorPtr& dst,
            const char* reason) {
    utility::Assert(false, "%s: src %s and dst %s do not fit: %s", kernel, ShapeText(src).c_str(),
                    ShapeText(dst).c_str(), reason);
}

}  // namespace detail
}  // namespace kernel
}  // namespace quvas
