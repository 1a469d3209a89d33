// tool_support.h - what the tests of the qvn-kit binary share: running it in
// a scratch directory with its output captured, and reading back the files it
// writes (whole files, uint8 .npy arrays).
#ifndef QVN_TESTS_TOOL_SUPPORT_H
#define QVN_TESTS_TOOL_SUPPORT_H

#include <sys/wait.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

#ifndef QVN_KIT_TOOL
#error "QVN_KIT_TOOL must name the qvn-kit binary"
#endif

namespace qvntest {

inline std::string Slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary);
    f << text;
}

struct RunResult {
    int code = -1;
    std::string out, err;
};

// Runs `qvn-kit ARGS` (after `prefix`, shell commands such as a ulimit) with
// its standard output and error captured through files in `dir`.
inline RunResult RunTool(const ScratchDir& dir, const std::string& args,
                         const std::string& prefix = "") {
    const std::string out = dir / ".out", err = dir / ".err";
    const std::string cmd = prefix + "'" + QVN_KIT_TOOL + "' " + args + " >'" + out + "' 2>'" +
                            err + "'";
    const int status = std::system(cmd.c_str());
    RunResult r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, Slurp(out), Slurp(err)};
    std::remove(out.c_str());
    std::remove(err.c_str());
    return r;
}

// A .npy file: its element type ("|u1"), shape text ("(2, 3, 96, 128)") and body.
struct Npy {
    std::string descr, shape;
    std::vector<uint8_t> body;
};

inline Npy ReadNpy(const std::string& path) {
    const std::string s = Slurp(path);
    Npy n;
    if (s.size() < 10 || s.compare(0, 6, "\x93NUMPY") != 0) return n;
    const size_t len =
        static_cast<uint8_t>(s[8]) | (static_cast<size_t>(static_cast<uint8_t>(s[9])) << 8);
    const std::string header = s.substr(10, len);
    const size_t d = header.find("'descr': '");
    if (d != std::string::npos) {
        n.descr = header.substr(d + 10, header.find('\'', d + 10) - d - 10);
    }
    const size_t a = header.find('('), b = header.find(')');
    n.shape = header.substr(a, b - a + 1);
    n.body.assign(s.begin() + 10 + static_cast<long>(len), s.end());
    return n;
}

}  // namespace qvntest

#endif  // QVN_TESTS_TOOL_SUPPORT_H
