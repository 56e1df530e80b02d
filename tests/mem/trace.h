#ifndef ZORVAC_TESTS_MEM_TRACE_H
#define ZORVAC_TESTS_MEM_TRACE_H
// Runs a routine one instruction at a time (the processor's trap flag) and tells which instructions
// it executed, as libZydis knows them: the only way to see from outside that a block was streamed,
// fenced, prefetched or left to a string instruction, since all of them produce the same bytes.
#include <Zydis/Zydis.h>
#include <ucontext.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace zorvac::test {

struct step {
  std::uintptr_t address;
  std::string_view what;   // the mnemonic
  std::uintptr_t operand;  // the address of what it reads or writes in memory, of `bytes` bytes
  unsigned bytes;
};
using trace = std::vector<step>;  // a repeated string instruction is one step

// The time that the routine reads: it stands still but for what reading it takes, and for steps that
// read or write slow memory.
struct stopped_clock {
  static constexpr std::uint64_t reading = 30;
  std::uint64_t now = 0;
  std::vector<std::uintptr_t> slow = {};  // bytes that take long
  std::uint64_t longer = 0;               // by so much
};

inline struct {
  std::uintptr_t entry;  // of the routine
  greg_t return_slot;    // its stack pointer at the entry; 0 outside the routine
  trace steps;
  stopped_clock clock;
} recorder;

// What is next to run. An instruction is the same with VEX and without, on integers or not; jumps
// are indirect ones.
inline step decode(const greg_t* registers) {
  static constexpr int order[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                  REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                  REG_R12, REG_R13, REG_R14, REG_R15};
  static ZydisRegisterContext values;
  ZydisDecoder decoder;
  ZydisDecodedInstruction instruction;
  ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
  const auto address = static_cast<std::uintptr_t>(registers[REG_RIP]);
  ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
  ZydisDecoderDecodeFull(&decoder, reinterpret_cast<const void*>(address),
                         ZYDIS_MAX_INSTRUCTION_LENGTH, &instruction, operands);
  step s{address, ZydisMnemonicGetString(instruction.mnemonic), 0, 0};
  if (s.what[0] == 'v') s.what.remove_prefix(1);
  if (s.what == "movntps") s.what = "movntdq";
  if (s.what == "jmp" && operands[0].type == ZYDIS_OPERAND_TYPE_IMMEDIATE) s.what = "";
  for (std::size_t i = 0; i < 16; ++i)
    values.values[ZYDIS_REGISTER_RAX + i] = static_cast<ZyanU64>(registers[order[i]]);
  for (std::size_t i = 0; i < instruction.operand_count_visible; ++i) {
    if (operands[i].type != ZYDIS_OPERAND_TYPE_MEMORY || s.what == "lea") continue;
    ZydisCalcAbsoluteAddressEx(&instruction, &operands[i], address, &values, &s.operand);
    s.bytes = operands[i].size / 8u;
  }
  return s;
}

// Records what is next to run; RDTSC is done here. Allocates nothing.
inline void on_step(int, siginfo_t*, void* context) {
  auto& [entry, return_slot, steps, clock] = recorder;
  greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  if (static_cast<std::uintptr_t>(registers[REG_RIP]) == entry) return_slot = registers[REG_RSP];
  if (registers[REG_RSP] > return_slot) return_slot = 0;
  while (return_slot != 0) {
    const step now = decode(registers);
    const bool repeats = !steps.empty() && steps.back().address == now.address;
    if (!repeats && steps.size() < steps.capacity()) steps.push_back(now);
    for (const std::uintptr_t byte : clock.slow)
      if (byte - now.operand < now.bytes) clock.now += clock.longer;
    if (now.what != "rdtsc") break;
    registers[REG_RAX] = static_cast<greg_t>(clock.now & 0xffff'ffff);
    registers[REG_RDX] = static_cast<greg_t>(clock.now >> 32);
    registers[REG_RIP] += 2;
    clock.now += stopped_clock::reading;
  }
}

// Traces the one call of a routine that `body` makes, from its first instruction to its return.
inline trace trace_of(const void* entry, const std::function<void()>& body,
                      const stopped_clock& clock) {
  constexpr long trap_flag = 0x100;
  recorder = {reinterpret_cast<std::uintptr_t>(entry), 0, {}, clock};
  recorder.steps.reserve(1 << 18);
  struct sigaction action = {};
  action.sa_sigaction = on_step;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, nullptr);
  asm volatile("pushfq\n\t orq %0, (%%rsp)\n\t popfq" ::"e"(trap_flag) : "memory", "cc");
  body();
  asm volatile("pushfq\n\t andq %0, (%%rsp)\n\t popfq" ::"e"(~trap_flag) : "memory", "cc");
  return recorder.steps;
}

}  // namespace zorvac::test
#endif
