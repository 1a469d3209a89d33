// fuzz_common.hpp - what the fuzz targets share: a reader that turns the
// fuzzer's bytes into bounded values, and the strict check on the library's
// log.
//
// Strict mode (the default; QVN_FUZZ_STRICT=0 turns it off): a target that
// builds an input it believes valid calls ExpectQuiet() after the library
// call, and any line the library logged then is a finding, because for the
// caller a refusal that is only logged looks like success.
#ifndef QVN_FUZZ_COMMON_HPP
#define QVN_FUZZ_COMMON_HPP

#include <qvn_kit/qvn_kit.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace qvnfuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : p_(data), n_(size) {}

    uint8_t U8() {
        if (n_ == 0) return 0;
        --n_;
        return *p_++;
    }
    uint32_t U32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(U8()) << (8 * i);
        return v;
    }
    // lo..hi inclusive.
    int Range(int lo, int hi) {
        uint32_t span = static_cast<uint32_t>(hi - lo) + 1;
        return lo + static_cast<int>(U32() % span);
    }
    bool Bit() { return (U8() & 1) != 0; }
    // Any bit pattern that is a finite float.
    float Finite() {
        uint32_t bits = U32();
        float v;
        std::memcpy(&v, &bits, 4);
        return v - v == 0.f ? v : 0.f;
    }
    template <typename T>
    const T& Pick(const std::vector<T>& options) {
        return options[U8() % options.size()];
    }
    // The remaining bytes, to fill buffers with.
    const uint8_t* rest() const { return p_; }
    size_t rest_size() const { return n_; }
    // `count` bytes: the remaining input repeated, then a counter.
    std::vector<uint8_t> Bytes(size_t count) {
        std::vector<uint8_t> out(count);
        for (size_t i = 0; i < count; ++i) {
            out[i] = n_ > 0 ? p_[i % n_] : static_cast<uint8_t>(i * 37);
        }
        return out;
    }

private:
    const uint8_t* p_;
    size_t n_;
};

inline std::vector<std::string>& Logged() {
    static std::vector<std::string> lines;
    return lines;
}

inline int Capture(const char* text) {
    if (Logged().size() < 4) Logged().emplace_back(text);
    return 0;
}

inline bool Strict() {
    static const bool strict = [] {
        const char* v = std::getenv("QVN_FUZZ_STRICT");
        return v == nullptr || std::strcmp(v, "0") != 0;
    }();
    return strict;
}

// Call once per input before the library runs.
inline void StartCall() {
    static bool installed = false;
    if (!installed) {
        QVN_SetLogCallback(&Capture);
        QVN_SetLogLevel(16);
        installed = true;
    }
    Logged().clear();
}

// The input was built valid: the library must not have refused it.
inline void ExpectQuiet(const char* what) {
    if (Strict() && !Logged().empty()) {
        std::fprintf(stderr, "%s: the library refused an input believed valid: %s\n", what,
                     Logged()[0].c_str());
        std::abort();
    }
}

// A property of the result does not hold.
inline void Fail(const char* what) {
    std::fprintf(stderr, "property failed: %s\n", what);
    std::abort();
}

}  // namespace qvnfuzz

#endif  // QVN_FUZZ_COMMON_HPP
