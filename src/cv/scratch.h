// scratch.h - output-sized scratch for the one-pass frame converter, kept
// per thread, so that a stream of frames of one size allocates nothing after
// the first. Private to the kit.
#ifndef QVN_KIT_SRC_CV_SCRATCH_H
#define QVN_KIT_SRC_CV_SCRATCH_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace quvas {
namespace kit {
namespace internal {

// One call's pieces of the calling thread's buffer. Only one Scratch may be
// alive on a thread at a time: the pieces of a second would share the bytes.
class Scratch {
public:
    // Carves `sizes[i]` bytes for piece i (at most twelve), each 64-byte aligned.
    explicit Scratch(std::initializer_list<size_t> sizes);
    // A buffer grown past kKeepBytes for an unusually large output is given
    // back here, when the call ends.
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    uint8_t* operator[](int i) const { return base_ + offsets_[i]; }

    static constexpr size_t kKeepBytes = size_t{16} << 20;

private:
    size_t offsets_[12] = {};
    int count_ = 0;
    uint8_t* base_ = nullptr;
};

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_SCRATCH_H
