#ifndef ZORVAC_MEM_COUNT_TABLE_H
#define ZORVAC_MEM_COUNT_TABLE_H
// A jump through a table indexed by a count, as the text of an `asm goto` with the operand `count`:
//
//   asm goto(ZORVAC_JUMP_BY_COUNT(ZORVAC_ENTRIES("1", nothing) ZORVAC_ENTRIES("%c[n]", something))
//            : : [count] "r"(count), [n] "i"(63) : "r10", "r11", "cc" : nothing, something);
//
// The table holds 32-bit distances from its own start, so it needs no relocation. The count must be
// below the number of entries; nothing checks it. The jump is written in assembler because a
// compiler turns a switch with many cases and few targets into comparisons, and adds a check.
#include <cstddef>

#define ZORVAC_JUMP_BY_COUNT(entries)      \
  "lea 9f(%%rip), %%r11\n\t"               \
  "movslq (%%r11, %[count], 4), %%r10\n\t" \
  "add %%r11, %%r10\n\t"                   \
  "jmp *%%r10\n\t"                         \
  ".pushsection .rodata\n\t"               \
  ".balign 4\n"                            \
  "9:\n\t" entries ".popsection"
// `number` entries, all to one label.
#define ZORVAC_ENTRIES(number, label) ".rept " number "\n\t.long %l[" #label "] - 9b\n\t.endr\n\t"

namespace zorvac::mem {
namespace {

// How many counts of a table from 0 to `limit` are above `low` and at most `high`.
constexpr std::size_t entries(std::size_t limit, std::size_t low, std::size_t high) {
  return (high < limit ? high : limit) - (low < limit ? low : limit);
}

}  // namespace
}  // namespace zorvac::mem
#endif
