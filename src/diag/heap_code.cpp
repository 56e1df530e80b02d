// An address is in the heap's code if one of two conditions holds. Neither one finds all cases:
//
//   - The routine that holds the address is one of the four. The C library calls its inner routines
//     from these, so one of the four is on the stack.
//   - The address is in the shared object that defines malloc, and that object does nothing else:
//     it is not the program, the C library or a sanitizer. Such allocators may jump from malloc to
//     their inner routines, and then no frame of malloc is on the stack.
#include "diag/heap_code.h"

#include <link.h>
#include <signal.h>
#include <unwind.h>

#include <algorithm>
#include <cstdlib>
#include <span>

#include "core/unaligned.h"

#pragma weak _Unwind_FindEnclosingFunction
// A static program may define malloc and free, and have neither of these.
#pragma weak calloc
#pragma weak realloc

namespace zorvac::diag {
namespace {

// The address that a call of a routine reaches. In a program that is linked to a fixed address, the
// address of a shared library's routine is that of a stub in the program: an optional ENDBR64, an
// optional BND prefix, and a JMP through a slot (System V ABI for AMD64, edition 1.0, 5.2).
template <class Routine>
std::uintptr_t target_of(Routine* routine) {
  constexpr std::uint32_t endbr64 = 0xfa1e0ff3;
  constexpr unsigned char bnd = 0xf2;
  constexpr std::uint16_t jmp_through_slot = 0x25ff;
  const auto address = reinterpret_cast<std::uintptr_t>(routine);
  if (address == 0) return 0;
  const auto* code = reinterpret_cast<const unsigned char*>(routine);
  if (load_unaligned<std::uint32_t>(code) == endbr64) code += sizeof endbr64;
  if (*code == bnd) ++code;
  if (load_unaligned<std::uint16_t>(code) != jmp_through_slot) return address;
  const auto distance = load_unaligned<std::int32_t>(code + 2);
  return load_unaligned<std::uintptr_t>(code + 6 + distance);
}

// The shared object that holds an address; an empty range where that is the program.
struct object_search {
  std::uintptr_t address;
  std::uintptr_t begin = 0, end = 0;
};

// The callback for each loaded object; a result other than 0 ends the search.
int look_into_object(dl_phdr_info* object, std::size_t, void* data) {
  auto& search = *static_cast<object_search*>(data);
  std::uintptr_t begin = UINTPTR_MAX, end = 0;
  for (const Elf64_Phdr& segment : std::span(object->dlpi_phdr, object->dlpi_phnum)) {
    if (segment.p_type != PT_LOAD) continue;
    begin = std::min(begin, object->dlpi_addr + segment.p_vaddr);
    end = std::max(end, object->dlpi_addr + segment.p_vaddr + segment.p_memsz);
  }
  if (search.address < begin || search.address >= end) return 0;
  const bool is_program = *object->dlpi_name == '\0';
  if (is_program) return 1;
  search.begin = begin;
  search.end = end;
  return 1;
}

}  // namespace

heap_code::heap_code(std::uintptr_t libc)
    : routines_{target_of(std::malloc), target_of(std::free), target_of(std::calloc),
                target_of(std::realloc)} {
  if (libc == 0) return;
  object_search allocator{.address = routines_[0]};
  dl_iterate_phdr(look_into_object, &allocator);
  begin_ = allocator.begin;
  end_ = allocator.end;
  // A sanitizer replaces most routines of the C library.
  if (is_in_object(libc) || is_in_object(target_of(sigaction))) begin_ = end_ = 0;
}

bool heap_code::is_in_object(std::uintptr_t address) const {
  return address >= begin_ && address < end_;
}

// Asks the unwinder only for addresses near one of the four routines, because that is slow.
bool heap_code::holds(std::uint64_t pc) const {
  constexpr std::uintptr_t longest_routine = 1 << 16;
  const std::uint64_t inside = pc - 1;  // a call that never returns may end its routine
  if (is_in_object(inside)) return true;
  if (_Unwind_FindEnclosingFunction == nullptr) return false;
  for (const std::uintptr_t routine : routines_) {
    if (routine == 0 || inside - routine >= longest_routine) continue;
    auto* const address = reinterpret_cast<void*>(inside);  // NOLINT(*-int-to-ptr)
    if (reinterpret_cast<std::uintptr_t>(_Unwind_FindEnclosingFunction(address)) == routine)
      return true;
  }
  return false;
}

}  // namespace zorvac::diag
