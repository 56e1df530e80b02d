#ifndef ZORVAC_TESTS_MEM_TRACE_H
#define ZORVAC_TESTS_MEM_TRACE_H
// Runs a routine one instruction at a time (with the processor's trap flag) and records which
// instructions it executed, decoded by libZydis. All paths produce the same bytes, so this is the
// only way to see from outside that a block was streamed, fenced, prefetched or left to a string
// instruction.
#include <Zydis/Zydis.h>

#include <csignal>
#include <functional>
#include <string>

#include "support/masks.h"

namespace zorvac::test {

struct step {
  std::uintptr_t address;
  std::string what;        // the mnemonic
  std::uintptr_t operand;  // the address of its memory operand, which has `bytes` bytes
  unsigned bytes;
};
// Runs in the middle of the routine, and may allocate, because the routine does not. Returns the
// time that the step takes on the clock that the routine reads. Apart from that, only reading the
// clock takes time.
using observer = std::function<std::uint64_t(const step&)>;
constexpr std::uint64_t clock_reading = 30;
inline struct {
  greg_t entry;        // of the routine
  greg_t return_slot;  // its stack pointer at the entry; 0 outside the routine
  std::uint64_t now;
  observer observe;
} recorder;

// The next instruction. It has one name with VEX and without, for integers and floating point. Of
// the jumps only indirect ones count.
inline step decode(const greg_t* registers) {
  static constexpr int order[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                  REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                  REG_R12, REG_R13, REG_R14, REG_R15};
  static ZydisRegisterContext values;
  static ZydisDisassembledInstruction next;
  const auto address = static_cast<std::uintptr_t>(registers[REG_RIP]);
  ZydisDisassembleIntel(ZYDIS_MACHINE_MODE_LONG_64, address, reinterpret_cast<void*>(address),
                        ZYDIS_MAX_INSTRUCTION_LENGTH, &next);
  step s{address, ZydisMnemonicGetString(next.info.mnemonic), 0, 0};
  if (s.what[0] == 'v') s.what.erase(0, 1);
  if (s.what == "movntps") s.what = "movntdq";
  if (s.what == "jmp" && next.operands[0].type == ZYDIS_OPERAND_TYPE_IMMEDIATE) s.what = "";
  for (std::size_t i = 0; i < 16; ++i)
    values.values[ZYDIS_REGISTER_RAX + i] = static_cast<ZyanU64>(registers[order[i]]);
  for (std::size_t i = 0; i < next.info.operand_count_visible; ++i) {
    if (next.operands[i].type != ZYDIS_OPERAND_TYPE_MEMORY || s.what == "lea") continue;
    ZydisCalcAbsoluteAddressEx(&next.info, &next.operands[i], address, &values, &s.operand);
    s.bytes = next.operands[i].size / 8u;
  }
  return s;
}

// Reports the next instruction. RDTSC is emulated here.
inline void on_step(int, siginfo_t*, void* context) {
  auto& [entry, return_slot, now, observe] = recorder;
  greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  if (registers[REG_RIP] == entry) return_slot = registers[REG_RSP];
  if (registers[REG_RSP] > return_slot) return_slot = 0;
  while (return_slot != 0) {
    const step s = decode(registers);
    now += observe(s);
    if (s.what != "rdtsc") break;
    registers[REG_RAX] = static_cast<greg_t>(now & 0xffff'ffff);
    registers[REG_RDX] = static_cast<greg_t>(now >> 32);
    registers[REG_RIP] += 2;
    now += clock_reading;
  }
}

// Traces one call, from its first instruction to its return. The lower half of the time soon wraps.
template <class Routine, class... Arguments>
void trace(const observer& observe, Routine* entry, Arguments... arguments) {
  recorder = {reinterpret_cast<greg_t>(entry), 0, (std::uint64_t{2} << 32) - 45, observe};
  struct sigaction action = {};
  action.sa_sigaction = on_step;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, nullptr);
  asm volatile("pushfq\n\t orq %0, (%%rsp)\n\t popfq" ::"i"(flags_bit::trap) : "memory", "cc");
  entry(arguments...);
  asm volatile("pushfq\n\t andq %0, (%%rsp)\n\t popfq" ::"i"(~flags_bit::trap) : "memory", "cc");
}

}  // namespace zorvac::test
#endif
