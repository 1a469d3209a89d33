// notice.cpp - notes for the user, kept until the run succeeds.
#include "notice.hpp"

#include <cstdio>
#include <vector>

namespace qvntool {
namespace {

std::vector<std::string>& Notices() {
    static std::vector<std::string> notes;
    return notes;
}

}  // namespace

void Notice(const std::string& text) { Notices().push_back(text); }

void FlushNotices() {
    for (const std::string& n : Notices()) std::fprintf(stderr, "qvn-kit: note: %s\n", n.c_str());
    Notices().clear();
}

}  // namespace qvntool
