// error.hpp - the one error type of the picture-file library and the tool:
// a fault in the user's input or environment that ends as one line.
#ifndef QVN_IO_ERROR_HPP
#define QVN_IO_ERROR_HPP

#include <stdexcept>
#include <string>

namespace qvntool {

// qvn-kit's main() prints "qvn-kit: <what>" and exits with the code; the
// Python module raises it as an exception of the matching kind.
class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& what, int code = 1)
        : std::runtime_error(what), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

// Exit codes.
constexpr int kExitUsage = 2;     // bad option value, unknown name, an option over a limit
constexpr int kExitInput = 3;     // missing, unreadable, malformed or oversized input
constexpr int kExitOutput = 4;    // output could not be written
constexpr int kExitLibrary = 5;   // the library refused the input

}  // namespace qvntool

#endif  // QVN_IO_ERROR_HPP
