// atomic_output.hpp - files that appear only when complete.
#ifndef QVN_IO_ATOMIC_OUTPUT_HPP
#define QVN_IO_ATOMIC_OUTPUT_HPP

#include <cstddef>
#include <functional>
#include <string>

namespace qvntool {

// Prepares `path` through a temporary file: `write` fills the temporary, and
// the output only appears when the whole run succeeds (CommitOutputs), so a
// run that fails at its last frame leaves none of its earlier outputs. On
// commit a regular file (or no file) is replaced by renaming, keeping the old
// file's permission bits; a symbolic link is followed and its target
// replaced; a FIFO or character device is written in place and stays what it
// is. Directories, block devices, sockets and dangling links are refused.
void WriteAtomically(const std::string& path,
                     const std::function<void(const std::string& tmp_path)>& write);
// Moves every prepared output into place; ToolError(kExitOutput) if one
// cannot be (those not yet moved are removed).
void CommitOutputs();
// Removes every prepared output that was not committed.
void DiscardOutputs();
void WriteTextAtomically(const std::string& path, const std::string& text);
void WriteBytesAtomically(const std::string& path, const void* data, size_t size);

}  // namespace qvntool

#endif  // QVN_IO_ATOMIC_OUTPUT_HPP
