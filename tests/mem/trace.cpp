// Single steps, and what each instruction is as libZydis knows it.
#include "mem/trace.h"

#include <Zydis/Zydis.h>
#include <ucontext.h>

#include <csignal>

namespace zorvac::test {
namespace {

constexpr struct {
  ZydisMnemonic mnemonic;
  unsigned what;
  const char* name;
} kinds[] = {
    {ZYDIS_MNEMONIC_MOVSB, rep_move_bytes, "rep movsb"},
    {ZYDIS_MNEMONIC_MOVSQ, rep_move_words, "rep movsq"},
    {ZYDIS_MNEMONIC_STOSB, rep_fill_bytes, "rep stosb"},
    {ZYDIS_MNEMONIC_STOSQ, rep_fill_words, "rep stosq"},
    {ZYDIS_MNEMONIC_MOVNTDQ, streaming_store, "movntdq"},
    {ZYDIS_MNEMONIC_VMOVNTDQ, streaming_store, ""},  // the same by other names
    {ZYDIS_MNEMONIC_MOVNTPS, streaming_store, ""},
    {ZYDIS_MNEMONIC_VMOVNTPS, streaming_store, ""},
    {ZYDIS_MNEMONIC_MOVNTI, streaming_word, "movnti"},
    {ZYDIS_MNEMONIC_SFENCE, store_fence, "sfence"},
    {ZYDIS_MNEMONIC_LFENCE, load_fence, "lfence"},
    {ZYDIS_MNEMONIC_PREFETCHNTA, prefetch_nta, "prefetchnta"},
    {ZYDIS_MNEMONIC_PREFETCHT0, prefetch_t0, "prefetcht0"},
    {ZYDIS_MNEMONIC_PREFETCHT1, prefetch_t1, "prefetcht1"},
    {ZYDIS_MNEMONIC_RDTSC, time_stamp, "rdtsc"},
    {ZYDIS_MNEMONIC_JMP, indirect_jump, "indirect jump"},
};

// What the instruction at an address is, with these general registers.
step decode(std::uintptr_t address, const greg_t* registers) {
  static const ZydisDecoder decoder = [] {
    ZydisDecoder d;
    ZydisDecoderInit(&d, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    return d;
  }();
  static constexpr int order[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                  REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                  REG_R12, REG_R13, REG_R14, REG_R15};
  static ZydisRegisterContext values;
  ZydisDecodedInstruction instruction;
  ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
  step s{address, 0, 0, 0};
  if (!ZYAN_SUCCESS(ZydisDecoderDecodeFull(&decoder, reinterpret_cast<const void*>(address),
                                           ZYDIS_MAX_INSTRUCTION_LENGTH, &instruction, operands)))
    return s;
  for (const auto& k : kinds)
    if (instruction.mnemonic == k.mnemonic) s.what = k.what;
  if (s.what == indirect_jump && operands[0].type == ZYDIS_OPERAND_TYPE_IMMEDIATE) s.what = 0;
  for (std::size_t i = 0; i < 16; ++i)
    values.values[ZYDIS_REGISTER_RAX + i] = static_cast<ZyanU64>(registers[order[i]]);
  for (std::size_t i = 0; i < instruction.operand_count_visible; ++i) {
    if (operands[i].type != ZYDIS_OPERAND_TYPE_MEMORY) continue;
    if (operands[i].mem.type == ZYDIS_MEMOP_TYPE_AGEN) continue;  // LEA touches nothing
    ZydisCalcAbsoluteAddressEx(&instruction, &operands[i], address, &values, &s.operand);
    s.bytes = operands[i].size / 8u;
  }
  return s;
}

struct {
  std::uintptr_t entry;  // of the routine
  greg_t return_slot;    // its stack pointer at the entry; 0 outside the routine
  trace steps;
  stopped_clock clock;
} recorder;

// Does what RDTSC does, and goes on to the next instruction.
void read_clock(greg_t* registers) {
  registers[REG_RAX] = static_cast<greg_t>(recorder.clock.now & 0xffff'ffff);
  registers[REG_RDX] = static_cast<greg_t>(recorder.clock.now >> 32);
  registers[REG_RIP] += 2;
  recorder.clock.now += stopped_clock::reading;
}

// Records the instruction that is next to run.
step record(const greg_t* registers) {
  const auto address = static_cast<std::uintptr_t>(registers[REG_RIP]);
  trace& steps = recorder.steps;
  const step now = decode(address, registers);
  const unsigned strings = rep_move_bytes | rep_move_words | rep_fill_bytes | rep_fill_words;
  const bool repeats = (now.what & strings) != 0 && steps.back().address == address;
  if (!repeats && steps.size() < steps.capacity()) steps.push_back(now);  // allocates nothing
  for (const void* slow : recorder.clock.slow)
    if (reinterpret_cast<std::uintptr_t>(slow) - now.operand < now.bytes)
      recorder.clock.now += recorder.clock.longer;
  return now;
}

void on_step(int, siginfo_t*, void* context) {
  greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  if (static_cast<std::uintptr_t>(registers[REG_RIP]) == recorder.entry)
    recorder.return_slot = registers[REG_RSP];
  if (registers[REG_RSP] > recorder.return_slot) recorder.return_slot = 0;
  if (recorder.return_slot == 0) return;
  while (record(registers).what == time_stamp) read_clock(registers);
}

}  // namespace

std::string names_of(unsigned what) {
  std::string names;
  for (const auto& k : kinds)
    if ((what & k.what) != 0 && *k.name != '\0') names.append(k.name).append(" ");
  return names;
}

trace trace_of(const void* routine, const std::function<void()>& body, const stopped_clock& clock) {
  constexpr long trap_flag = 0x100;
  recorder.entry = reinterpret_cast<std::uintptr_t>(routine);
  recorder.return_slot = 0;
  recorder.clock = clock;
  recorder.steps.clear();
  recorder.steps.reserve(1 << 20);
  struct sigaction action {
  }, old{};
  action.sa_sigaction = on_step;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, &old);
  asm volatile("pushfq\n\t orq %0, (%%rsp)\n\t popfq" ::"e"(trap_flag) : "memory", "cc");
  body();
  asm volatile("pushfq\n\t andq %0, (%%rsp)\n\t popfq" ::"e"(~trap_flag) : "memory", "cc");
  sigaction(SIGTRAP, &old, nullptr);
  return recorder.steps;
}

}  // namespace zorvac::test
