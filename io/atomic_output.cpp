// atomic_output.cpp - outputs prepared in temporary files and moved into
// place only when the whole run succeeded.
#include "atomic_output.hpp"

#include "error.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qvntool {
namespace {

// An output prepared in `tmp`, to be moved to `target` on commit.
struct PendingOutput {
    std::string tmp, target, shown;
    bool in_place = false;  // copy into an existing FIFO or character device
};
std::vector<PendingOutput>& Pending() {
    static std::vector<PendingOutput> pending;
    return pending;
}

std::string DirOf(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Copies `tmp` into the existing FIFO or device `target` without replacing it.
void CopyInto(const std::string& tmp, const std::string& target, const std::string& shown) {
    std::vector<uint8_t> bytes;
    {
        std::FILE* in = std::fopen(tmp.c_str(), "rb");
        if (in == nullptr) throw ToolError("cannot write '" + shown + "'", kExitOutput);
        uint8_t buf[1 << 16];
        size_t n = 0;
        while ((n = std::fread(buf, 1, sizeof buf, in)) > 0) bytes.insert(bytes.end(), buf, buf + n);
        std::fclose(in);
    }
    int fd = ::open(target.c_str(), O_WRONLY | O_NOCTTY);
    if (fd < 0) {
        throw ToolError("cannot write '" + shown + "': " + std::strerror(errno), kExitOutput);
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t w = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            int err = errno;
            ::close(fd);
            throw ToolError("cannot write '" + shown + "': " + std::strerror(err), kExitOutput);
        }
        done += static_cast<size_t>(w);
    }
    if (::close(fd) != 0) throw ToolError("cannot write '" + shown + "'", kExitOutput);
}

}  // namespace

void WriteAtomically(const std::string& path,
                     const std::function<void(const std::string& tmp_path)>& write) {
    PendingOutput out;
    out.target = path;
    out.shown = path;
    struct stat st {};
    bool exists = ::lstat(path.c_str(), &st) == 0;
    if (exists && S_ISLNK(st.st_mode)) {
        // Replace what the link points to, not the link.
        char* real = ::realpath(path.c_str(), nullptr);
        if (real == nullptr || ::stat(real, &st) != 0) {
            std::free(real);
            throw ToolError("cannot write '" + path + "': it is a link to a missing file",
                            kExitOutput);
        }
        out.target = real;
        std::free(real);
    }
    mode_t mask = ::umask(0);
    ::umask(mask);
    mode_t mode = 0666 & ~mask;
    std::string dir = DirOf(out.target);
    if (exists) {
        if (S_ISREG(st.st_mode)) {
            mode = st.st_mode & 07777;  // keep a private file private
        } else if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode)) {
            out.in_place = true;
            const char* tmpdir = std::getenv("TMPDIR");
            dir = tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp";
        } else {
            const char* kind = S_ISDIR(st.st_mode) ? "a directory" : "not a regular file";
            throw ToolError("cannot write '" + path + "': it is " + kind, kExitOutput);
        }
    }
    std::string tmpl = out.in_place ? dir + "/qvn-kit-out-XXXXXX" : out.target + ".tmp-XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0) {
        throw ToolError("cannot create '" + path + "': " + std::strerror(errno), kExitOutput);
    }
    ::fchmod(fd, mode);
    ::close(fd);
    out.tmp = name.data();
    try {
        write(out.tmp);
    } catch (...) {
        std::remove(out.tmp.c_str());
        throw;
    }
    Pending().push_back(out);
}

void CommitOutputs() {
    std::vector<PendingOutput>& pending = Pending();
    try {
        while (!pending.empty()) {
            const PendingOutput& out = pending.front();
            if (out.in_place) {
                CopyInto(out.tmp, out.target, out.shown);
                std::remove(out.tmp.c_str());
            } else if (std::rename(out.tmp.c_str(), out.target.c_str()) != 0) {
                throw ToolError("cannot write '" + out.shown + "': " + std::strerror(errno),
                                kExitOutput);
            }
            pending.erase(pending.begin());
        }
    } catch (...) {
        DiscardOutputs();
        throw;
    }
}

void DiscardOutputs() {
    for (const PendingOutput& out : Pending()) std::remove(out.tmp.c_str());
    Pending().clear();
}

void WriteBytesAtomically(const std::string& path, const void* data, size_t size) {
    WriteAtomically(path, [&](const std::string& tmp) {
        std::FILE* f = std::fopen(tmp.c_str(), "wb");
        if (f == nullptr) throw ToolError("cannot write '" + path + "'", kExitOutput);
        size_t n = size == 0 ? 0 : std::fwrite(data, 1, size, f);
        bool ok = n == size && std::fclose(f) == 0;
        if (!ok) throw ToolError("cannot write '" + path + "'", kExitOutput);
    });
}

void WriteTextAtomically(const std::string& path, const std::string& text) {
    WriteBytesAtomically(path, text.data(), text.size());
}

}  // namespace qvntool
