// Single steps and a decoder for the few instructions that the tests ask about.
#include "mem/trace.h"

#include <ucontext.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <map>

namespace zorvac::test {
namespace {

struct {
  std::uintptr_t entry;  // of the routine
  greg_t return_slot;    // its stack pointer at the entry; 0 outside the routine
  std::vector<instruction> steps;
  const volatile unsigned char* watched[2];
  int written[2];
} recorder;

// The address that the memory operand of a prefetch names; `code` is the instruction.
std::uintptr_t prefetch_operand(const unsigned char* code, const greg_t* registers) {
  constexpr int order[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                           REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
  const unsigned rex = (*code & 0xf0) == 0x40 ? *code++ : 0;
  const unsigned modrm = code[2], mod = modrm >> 6;
  code += 3;
  greg_t address = 0;
  unsigned base = modrm & 7;
  if (base == 4) {
    const unsigned sib = *code++, index = (sib >> 3 & 7) | (rex & 2) << 2;
    if (index != 4) address += registers[order[index]] << (sib >> 6);
    base = sib & 7;
  }
  address += registers[order[base | (rex & 1) << 3]];
  if (mod == 1) address += static_cast<signed char>(*code);
  if (mod == 2) {
    std::int32_t displacement;
    std::memcpy(&displacement, code, sizeof displacement);
    address += displacement;
  }
  return static_cast<std::uintptr_t>(address);
}

void on_step(int, siginfo_t*, void* context) {
  const greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  const auto address = static_cast<std::uintptr_t>(registers[REG_RIP]);
  auto& steps = recorder.steps;
  if (address == recorder.entry) recorder.return_slot = registers[REG_RSP];
  if (registers[REG_RSP] > recorder.return_slot) recorder.return_slot = 0;
  if (recorder.return_slot == 0) return;
  for (int i = 0; i < 2; ++i)
    if (recorder.watched[i] != nullptr && recorder.written[i] < 0 && *recorder.watched[i] != 0)
      recorder.written[i] = static_cast<int>(steps.size());
  const auto* const code = reinterpret_cast<const unsigned char*>(address);
  const kind what = kind_of(code);
  const bool repeats = what >= kind::rep_move_bytes && what <= kind::rep_fill_words &&
                       !steps.empty() && steps.back().address == address;
  if (repeats || steps.size() == steps.capacity()) return;
  const bool prefetches = what >= kind::prefetch_nta && what <= kind::prefetch_t1;
  steps.push_back({address, what, prefetches ? prefetch_operand(code, registers) : 0});
}

constexpr unsigned trap_flag = 0x100;

kind prefetch_kind(unsigned hint) {
  constexpr kind kinds[] = {kind::prefetch_nta, kind::prefetch_t0, kind::prefetch_t1};
  return hint < 3 ? kinds[hint] : kind::other;
}

// An instruction of the two-byte map, whatever its prefixes looked like. `prefix` is 0, 0x66, 0xf3
// or 0xf2.
kind two_byte_kind(unsigned prefix, unsigned char opcode, unsigned char modrm) {
  const unsigned reg = modrm >> 3 & 7;
  const bool memory = modrm >> 6 != 3;
  switch (opcode) {
    case 0x18:
      return memory ? prefetch_kind(reg) : kind::other;
    case 0x31:
      return kind::time_stamp;
    case 0xc3:
      return memory ? kind::streaming_word : kind::other;
    case 0x2b:
    case 0xe7:
      return memory ? kind::streaming_store : kind::other;
    case 0xae:
      if (memory || prefix != 0) return kind::other;
      return reg == 7 ? kind::store_fence : reg == 5 ? kind::load_fence : kind::other;
    case 0x10:
      return memory && prefix != 0xf3 && prefix != 0xf2 ? kind::unaligned_load : kind::other;
    case 0x11:
      return memory && prefix != 0xf3 && prefix != 0xf2 ? kind::unaligned_store : kind::other;
    case 0x6f:
      return memory && prefix == 0xf3 ? kind::unaligned_load : kind::other;
    case 0x7f:
      return memory && prefix == 0xf3 ? kind::unaligned_store : kind::other;
    case 0xf0:
      return prefix == 0xf2 ? kind::unaligned_load : kind::other;
    case 0x73:
      return reg == 3 ? kind::shift_and_merge : kind::other;
    default:
      return kind::other;
  }
}

constexpr unsigned prefix_of_vex[] = {0, 0x66, 0xf3, 0xf2};

}  // namespace

kind kind_of(const unsigned char* code) {
  if (code[0] == 0xc5) return two_byte_kind(prefix_of_vex[code[1] & 3], code[2], code[3]);
  if (code[0] == 0xc4 && (code[1] & 0x1f) == 1)
    return two_byte_kind(prefix_of_vex[code[2] & 3], code[3], code[4]);
  if (code[0] == 0x62 && (code[1] & 3) == 1) {
    const unsigned prefix = prefix_of_vex[code[2] & 3];
    if (code[4] == 0x6f || code[4] == 0x7f)  // in this encoding F2 is as unaligned as F3
      return two_byte_kind(prefix == 0xf2 ? 0xf3 : prefix, code[4], code[5]);
    return two_byte_kind(prefix, code[4], code[5]);
  }

  unsigned prefix = 0;
  while (*code == 0x66 || *code == 0xf2 || *code == 0xf3 || *code == 0x3e || *code == 0x2e) {
    if (*code != 0x3e && *code != 0x2e) prefix = *code;
    ++code;
  }
  if ((*code & 0xf0) == 0x40) ++code;  // REX
  if (prefix == 0xf3) {
    switch (*code) {
      case 0xa4:
        return kind::rep_move_bytes;
      case 0xa5:
        return kind::rep_move_words;
      case 0xaa:
        return kind::rep_fill_bytes;
      case 0xab:
        return kind::rep_fill_words;
      default:
        break;
    }
  }
  if (*code == 0xff && (code[1] >> 3 & 7) == 4) return kind::indirect_jump;
  if (*code != 0x0f) return kind::other;
  if (code[1] == 0x3a) return code[2] == 0x0f ? kind::shift_and_merge : kind::other;
  return two_byte_kind(prefix, code[1], code[2]);
}

trace trace_of(const void* routine, const std::function<void()>& body,
               const unsigned char* first_watched, const unsigned char* second_watched) {
  recorder.entry = reinterpret_cast<std::uintptr_t>(routine);
  recorder.return_slot = 0;
  recorder.steps.clear();
  recorder.steps.reserve(1 << 20);  // the handler must not allocate
  recorder.watched[0] = first_watched, recorder.watched[1] = second_watched;
  recorder.written[0] = recorder.written[1] = -1;
  struct sigaction action {
  }, old{};
  action.sa_sigaction = on_step;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, &old);
  asm volatile("pushfq\n\t orq %0, (%%rsp)\n\t popfq" ::"e"(trap_flag) : "memory", "cc");
  body();
  asm volatile("pushfq\n\t andq %0, (%%rsp)\n\t popfq" ::"e"(~static_cast<long>(trap_flag))
               : "memory", "cc");
  sigaction(SIGTRAP, &old, nullptr);
  return {recorder.steps, recorder.written[0], recorder.written[1]};
}

int trace::count(kind what) const {
  return static_cast<int>(
      std::count_if(steps.begin(), steps.end(), [=](auto& step) { return step.what == what; }));
}

bool trace::loops_over(kind what) const {
  std::map<std::uintptr_t, int> times;
  for (const instruction& step : steps)
    if (step.what == what && ++times[step.address] > 1) return true;
  return false;
}

bool trace::loops() const {
  std::map<std::uintptr_t, int> times;
  for (const instruction& step : steps)
    if (++times[step.address] > 1) return true;
  return false;
}

}  // namespace zorvac::test
