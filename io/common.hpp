// common.hpp - everything the front ends share from the picture-file
// library apart from the file formats themselves: the error type, limits,
// option parsers, input reading, atomic output, the library's log route and
// notes for the user.
#ifndef QVN_IO_COMMON_HPP
#define QVN_IO_COMMON_HPP

#include "atomic_output.hpp"
#include "error.hpp"
#include "file_read.hpp"
#include "library_log.hpp"
#include "limits.hpp"
#include "notice.hpp"
#include "parse.hpp"

#endif  // QVN_IO_COMMON_HPP
