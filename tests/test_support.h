// test_support.h - small helpers the unit tests share: seeded random bytes,
// frame descriptions, u8 tensors filled with a marker byte, buffers fenced by
// inaccessible pages, and a scratch directory that goes away with the test.
#ifndef QVN_TESTS_TEST_SUPPORT_H
#define QVN_TESTS_TEST_SUPPORT_H

#include <qvn_kit/frame_view.hpp>
#include <qvn_kit/qvn_kit.h>
#include <quvas/runtime/tensor.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace qvntest {

// n bytes, each the low byte of one draw of a Mersenne twister.
inline void FillRandom(uint8_t* p, size_t n, std::mt19937& rng) {
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(rng());
}
inline std::vector<uint8_t> RandomBytes(size_t n, std::mt19937& rng) {
    std::vector<uint8_t> out(n);
    FillRandom(out.data(), n, rng);
    return out;
}
inline std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    return RandomBytes(n, rng);
}

// n floats drawn uniformly from [lo, hi) by a Mersenne twister seeded `seed`.
inline std::vector<float> RandomFloats(size_t n, float lo, float hi, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> out(n);
    for (float& v : out) v = dist(rng);
    return out;
}

// A frame over `data`; every field not named is zero but the whole-frame rect.
inline QVN_Image MakeImage(uint32_t pix_fmt, int w, int h, int channels, void* data,
                           uint32_t ori = 0, QVN_Rect2D rect = {0.f, 0.f, 1.f, 1.f}) {
    QVN_Image img{};
    img.pix_fmt = pix_fmt;
    img.ori_fmt = ori;
    img.width = w;
    img.height = h;
    img.channels = channels;
    img.rect = rect;
    img.data = static_cast<uint8_t*>(data);
    return img;
}

// An owned tensor on `device`, every byte `fill`.
inline quvas::runtime::TensorPtr FilledTensor(quvas::runtime::DeviceCPU& device,
                                              std::vector<int32_t> dims, int32_t layout,
                                              uint8_t fill, int32_t type = 7,
                                              uint32_t location = 0x10001) {
    quvas::runtime::TensorPtr t = device.CreateTensor(
        quvas::runtime::TensorShape(std::move(dims), type, layout, location), nullptr);
    std::memset(t->data(), fill, t->byte_size());
    return t;
}

// The one-pass view converter's bytes, into a tensor first filled with
// `fill`: C x H x W planes (c = 3) or H x W gray (c = 1).
inline std::vector<uint8_t> OnePassViewBytes(quvas::runtime::DeviceCPU& device,
                                             const quvas::kit::FrameView& v, int c, int h, int w,
                                             bool bgr, const int crop[4], uint8_t pad,
                                             uint8_t fill = 0x5A) {
    namespace k = quvas::kit;
    quvas::runtime::TensorPtr out =
        c == 1 ? FilledTensor(device, {h, w, 1}, quvas::runtime::layout::kHWC, fill)
               : FilledTensor(device, {c, h, w}, quvas::runtime::layout::kCHW, fill);
    if (c == 1) {
        k::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_Gray8_TensorCPU(
            v, out, crop[0], crop[1], crop[2], crop[3], pad);
    } else {
        k::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
            v, out, bgr, crop[0], crop[1], crop[2], crop[3], pad);
    }
    return std::vector<uint8_t>(out->data(), out->data() + out->byte_size());
}

inline bool AllBytes(const quvas::runtime::TensorPtr& t, uint8_t value) {
    for (size_t i = 0; i < t->byte_size(); ++i) {
        if (t->data()[i] != value) return false;
    }
    return true;
}

// Colour matrices of the two-plane formats 2, 3, 8, 9 (rows) for R,G,B
// output, then for B,G,R (second block): the luma weight, the two chroma
// weights of each output plane in turn, and the two chroma offsets.
constexpr float kYuvMatrix[2][4][10] = {
    {{1, 0, 1.5748f, -0.46812427f, -0.18732427f, 1.8556f, 0, 0, 0.5f, 0.5f},
     {1, 0, 1.402f, -0.7141363f, -0.3441363f, 1.772f, 0, 0, 0.5f, 0.5f},
     {1, 0, 1.40625f, -0.34375f, -0.71875f, 2.078125f, 0, 0, 0.5f, 0.5f},
     {1, 1.40625f, 0, -0.71875f, -0.34375f, 0, 2.078125f, 0, 0.5f, 0.5f}},
    {{1, 1.8556f, 0, -0.46812427f, -0.18732427f, 0, 1.5748f, 0, 0.5f, 0.5f},
     {1, 1.772f, 0, -0.7141363f, -0.3441363f, 0, 1.402f, 0, 0.5f, 0.5f},
     {1, 2.078125f, 0, -0.34375f, -0.71875f, 0, 1.40625f, 0, 0.5f, 0.5f},
     {1, 0, 2.078125f, -0.71875f, -0.34375f, 1.40625f, 0, 0, 0.5f, 0.5f}},
};

// The real-valued colour definition of output plane `plane` on a 0..1 scale,
// scaled back to bytes but not rounded.
inline double YuvReal(const float* m, int plane, int y, int c0, int c1) {
    const double a = m[1 + 2 * plane], b = m[2 + 2 * plane];
    return 255.0 * (m[0] * (y / 255.0) + a * (c0 / 255.0 - m[8]) + b * (c1 / 255.0 - m[9]));
}

// A writable region of `size` bytes with an inaccessible page on each side.
// at_end puts the region's last byte just before the back guard, otherwise
// its first byte just after the front guard.
class Guarded {
public:
    Guarded(size_t size, bool at_end) : size_(size) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        span_ = (size + page_ - 1) / page_ * page_ + 2 * page_;
        void* m = mmap(nullptr, span_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED) std::abort();
        base_ = static_cast<uint8_t*>(m);
        mprotect(base_, page_, PROT_NONE);
        mprotect(base_ + span_ - page_, page_, PROT_NONE);
        data_ = at_end ? base_ + span_ - page_ - size : base_ + page_;
    }
    ~Guarded() { munmap(base_, span_); }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    template <typename T>
    T* as() { return reinterpret_cast<T*>(data_); }
    std::vector<uint8_t> bytes() const { return std::vector<uint8_t>(data_, data_ + size_); }

private:
    size_t size_, page_, span_;
    uint8_t* base_;
    uint8_t* data_;
};

// A fresh directory under /tmp, removed with everything in it.
class ScratchDir {
public:
    ScratchDir() {
        char tmpl[] = "/tmp/qvn-test-XXXXXX";
        if (::mkdtemp(tmpl) == nullptr) std::abort();
        dir_ = tmpl;
    }
    ~ScratchDir() { EXPECT_EQ(std::system(("rm -rf '" + dir_ + "'").c_str()), 0); }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return dir_; }
    std::string operator/(const std::string& name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

}  // namespace qvntest

#endif  // QVN_TESTS_TEST_SUPPORT_H
