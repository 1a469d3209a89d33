// scratch.cpp - the per-thread buffer behind Scratch.
#include "scratch.h"

#include <vector>

namespace quvas {
namespace kit {
namespace internal {

namespace {

std::vector<uint8_t>& Buffer() {
    thread_local std::vector<uint8_t> buffer;
    return buffer;
}

}  // namespace

Scratch::Scratch(std::initializer_list<size_t> sizes) {
    size_t used = 0;
    for (size_t bytes : sizes) {
        offsets_[count_++] = used;
        used += (bytes + 63) & ~size_t{63};
    }
    std::vector<uint8_t>& buffer = Buffer();
    if (buffer.size() < used + 64) buffer.resize(used + 64);
    base_ = reinterpret_cast<uint8_t*>(
        (reinterpret_cast<uintptr_t>(buffer.data()) + 63) & ~uintptr_t{63});
}

Scratch::~Scratch() {
    if (Buffer().size() > kKeepBytes) std::vector<uint8_t>().swap(Buffer());
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
