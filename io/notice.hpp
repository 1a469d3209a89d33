// notice.hpp - notes for the user about what was done to an input.
#ifndef QVN_IO_NOTICE_HPP
#define QVN_IO_NOTICE_HPP

#include <string>

namespace qvntool {

// A note for the user ("qvn-kit: note: <text>"), printed when the run
// succeeds; a failed run prints only its error.
void Notice(const std::string& text);
void FlushNotices();

}  // namespace qvntool

#endif  // QVN_IO_NOTICE_HPP
