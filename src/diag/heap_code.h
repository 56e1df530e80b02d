#ifndef ZORVAC_DIAG_HEAP_CODE_H
#define ZORVAC_DIAG_HEAP_CODE_H
// Whether an address is inside the process's malloc, free, calloc or realloc. A process that dies
// there has a heap that is broken, or whose lock is never given back: a traceback must not use it.
#include <cstddef>
#include <cstdint>

namespace zorvac::diag {

class heap_code {
 public:
  // `libc` is any address of the C library's code.
  explicit heap_code(std::uintptr_t libc);

  // `pc` is where a frame goes on: an instruction that was interrupted, or where a call returns to.
  [[nodiscard]] bool holds(std::uint64_t pc) const;

 private:
  [[nodiscard]] bool is_in_object(std::uintptr_t address) const;

  std::uintptr_t routines_[4];
  std::uintptr_t begin_ = 0, end_ = 0;  // of an object that is nothing but an allocator
};

}  // namespace zorvac::diag
#endif
