#ifndef ZORVAC_TESTS_MEM_TRACE_H
#define ZORVAC_TESTS_MEM_TRACE_H
// Runs a routine one instruction at a time (the processor's trap flag) and tells which instructions
// it executed: the only way to see from outside that a block was streamed, fenced, prefetched or
// left to a string instruction, since all of them produce the same bytes.
#include <cstdint>
#include <functional>
#include <vector>

namespace zorvac::test {

enum class kind {
  other,
  rep_move_bytes,
  rep_move_words,
  rep_fill_bytes,
  rep_fill_words,
  streaming_store,  // of a vector register
  streaming_word,   // of a general register
  store_fence,
  load_fence,
  prefetch_nta,
  prefetch_t0,
  prefetch_t1,
  indirect_jump,
  time_stamp,
  unaligned_load,   // of a whole vector register
  unaligned_store,  // likewise
  shift_and_merge,  // PSRLDQ or PALIGNR
};

struct instruction {
  std::uintptr_t address;
  kind what;
  std::uintptr_t operand;  // of a prefetch: the address it names
};

struct trace {
  std::vector<instruction> steps;  // a repeated string instruction is one step
  // The step after which each watched byte was no longer zero, or -1.
  int first_written = -1, second_written = -1;

  [[nodiscard]] int count(kind what) const;
  [[nodiscard]] bool has(kind what) const { return count(what) != 0; }
  // Whether an instruction, or one of this kind, ran more than once: whether it stands in a loop.
  [[nodiscard]] bool loops() const;
  [[nodiscard]] bool loops_over(kind what) const;
};

// Tells what an instruction is from its first bytes.
kind kind_of(const unsigned char* code);

// Traces the one call of `routine` that `body` makes, from its first instruction to its return.
trace trace_of(const void* routine, const std::function<void()>& body,
               const unsigned char* first_watched = nullptr,
               const unsigned char* second_watched = nullptr);

}  // namespace zorvac::test
#endif
