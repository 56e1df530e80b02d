#ifndef ZORVAC_DIAG_ERRNO_GUARD_H
#define ZORVAC_DIAG_ERRNO_GUARD_H
// Restores errno, because diagnostics run in the middle of a program's own error handling. It is
// the first object of a routine, so that it is destroyed last and covers the other destructors,
// too.
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
