#ifndef ZORVAC_DIAG_HEAP_CODE_H
#define ZORVAC_DIAG_HEAP_CODE_H
// Says whether an address is inside the process's malloc, free, calloc or realloc. When a process
// dies there, its heap is damaged or the heap's lock is never released, so a traceback must not
// allocate.
#include <cstddef>
#include <cstdint>

namespace zorvac::diag {

class heap_code {
 public:
  // `libc` is any address of the C library's code.
  explicit heap_code(std::uintptr_t libc);

  // `pc` is a frame's program counter: an interrupted instruction, or the return address of a call.
  [[nodiscard]] bool holds(std::uint64_t pc) const;

 private:
  [[nodiscard]] bool is_in_object(std::uintptr_t address) const;

  std::uintptr_t routines_[4];
  std::uintptr_t begin_ = 0, end_ = 0;  // of an object that is only an allocator
};

}  // namespace zorvac::diag
#endif
