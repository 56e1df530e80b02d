#ifndef ZORVAC_MEM_COUNT_TABLE_H
#define ZORVAC_MEM_COUNT_TABLE_H
// A jump by a count: through a table indexed by the count, to the label of the count's class.
//
//   ZORVAC_JUMP_BY_COUNT(count, limit, CLASSES);
//
// CLASSES(X) is a list macro. Its rows X(label, first, last) have a label of the function, and the
// first and the last count of a class. Count 0 jumps to the label `nothing`. The table ends at the
// limit, so a class may end or lie beyond it. The count must not be above the limit; nothing checks
// it.
//
// The table holds 32-bit distances from its own start, so it needs no relocation. The jump is
// written in assembler because a compiler turns a switch with many cases and few targets into
// comparisons, and adds a check.
#include <cstddef>

namespace zorvac::mem {
namespace {

// How many counts of a table from 0 to `limit` are from `first` to `last`.
constexpr std::size_t entries(std::size_t limit, std::size_t first, std::size_t last) {
  const std::size_t end = last < limit ? last + 1 : limit + 1;
  return first < end ? end - first : 0;
}
template <class... Counts>
constexpr std::size_t total(Counts... counts) {
  return (counts + ...);
}

}  // namespace
}  // namespace zorvac::mem

#define ZORVAC_JUMP_BY_COUNT(count_, limit_, classes)                                              \
  do {                                                                                             \
    constexpr std::size_t jump_limit = limit_;                                                     \
    static_assert(zorvac::mem::total(std::size_t{1} classes(ZORVAC_CLASS_SIZE)) == jump_limit + 1, \
                  "one entry for each count");                                                     \
    asm goto("lea 9f(%%rip), %%r11\n\t"                                                            \
             "movslq (%%r11, %[count], 4), %%r10\n\t"                                              \
             "add %%r11, %%r10\n\t"                                                                \
             "jmp *%%r10\n\t"                                                                      \
             ".pushsection .rodata\n\t"                                                            \
             ".balign 4\n"                                                                         \
             "9:\n\t"                                                                              \
             ".long %l[nothing] - 9b\n\t" classes(ZORVAC_CLASS_ENTRIES) ".popsection"              \
             :                                                                                     \
             : [count] "r"(count_)classes(ZORVAC_CLASS_OPERAND)                                    \
             : "r10", "r11", "cc"                                                                  \
             : nothing classes(ZORVAC_CLASS_LABEL));                                               \
    __builtin_unreachable();                                                                       \
  } while (false)
#define ZORVAC_CLASS_SIZE(label, first, last) , zorvac::mem::entries(jump_limit, first, last)
#define ZORVAC_CLASS_ENTRIES(label, first, last) \
  ".rept %c[n_" #label "]\n\t.long %l[" #label "] - 9b\n\t.endr\n\t"
#define ZORVAC_CLASS_OPERAND(label, first, last) \
  , [n_##label] "i"(zorvac::mem::entries(jump_limit, first, last))
#define ZORVAC_CLASS_LABEL(label, first, last) , label
#endif
