#ifndef ZORVAC_DIAG_ERRNO_GUARD_H
#define ZORVAC_DIAG_ERRNO_GUARD_H
// Leaves errno as it was found: diagnostics run amid a program's own error handling. Declared first
// in a routine, so that what its other objects do at its end is covered, too.
#include <cerrno>

namespace zorvac::diag {

class errno_guard {
 public:
  errno_guard() = default;
  ~errno_guard() { errno = error_; }
  errno_guard(const errno_guard&) = delete;
  errno_guard& operator=(const errno_guard&) = delete;

 private:
  const int error_ = errno;
};

}  // namespace zorvac::diag
#endif
