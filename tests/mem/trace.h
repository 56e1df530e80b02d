#ifndef ZORVAC_TESTS_MEM_TRACE_H
#define ZORVAC_TESTS_MEM_TRACE_H
// Runs a routine one instruction at a time (the processor's trap flag) and tells which instructions
// it executed: the only way to see from outside that a block was streamed, fenced, prefetched or
// left to a string instruction, since all of them produce the same bytes.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zorvac::test {

// What the tests ask about; every other instruction is 0.
enum instruction_kind : unsigned {
  rep_move_bytes = 1,
  rep_move_words = 2,
  rep_fill_bytes = 4,
  rep_fill_words = 8,
  streaming_store = 16,  // of a vector register
  streaming_word = 32,   // of a general register
  store_fence = 64,
  load_fence = 128,
  prefetch_nta = 256,
  prefetch_t0 = 512,
  prefetch_t1 = 1024,
  time_stamp = 2048,
  indirect_jump = 4096,
};
std::string names_of(unsigned kinds);

struct step {
  std::uintptr_t address;
  unsigned what;
  std::uintptr_t operand;  // the address of what it reads or writes in memory, of `bytes` bytes
  unsigned bytes;
};
using trace = std::vector<step>;  // a repeated string instruction is one step

// The time that a traced routine reads: it stands still but for what reading it takes, and for steps
// that read or write slow memory.
struct stopped_clock {
  std::uint64_t now = 0;
  std::vector<const void*> slow;  // bytes that take long
  std::uint64_t longer = 0;       // by so much
  static constexpr std::uint64_t reading = 30;
};

// Traces the one call of `routine` that `body` makes, from its first instruction to its return.
trace trace_of(const void* routine, const std::function<void()>& body,
               const stopped_clock& clock = {});

}  // namespace zorvac::test
#endif
