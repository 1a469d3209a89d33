// fuzz_npy.cpp - qvn-kit's .npy reader on arbitrary bytes: it either refuses
// with a ToolError or returns exactly as many values as its shape holds.
#include "common.hpp"
#include "fuzz_common.hpp"
#include "npy.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    try {
        qvntool::NpyArray a = qvntool::ParseNpyFloat("fuzz.npy", bytes);
        size_t count = 1;
        for (size_t d : a.shape) count *= d;
        if (a.values.size() != count) qvnfuzz::Fail("value count differs from the shape");
        if (count * 4 > size) qvnfuzz::Fail("more values than the file holds");
    } catch (const qvntool::ToolError& e) {
        if (e.code() != qvntool::kExitInput) qvnfuzz::Fail("npy refusal with another exit code");
    }
    return 0;
}
