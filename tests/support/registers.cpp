// The handler of two traps exchanges the registers; one trap is before the routine and one after
// it. What the handler writes to the frame of a signal is in the registers when it returns. The
// first trap loads the registers from the file. The second one stores them into the file and
// restores the caller's.
#include "support/registers.h"

#include <ucontext.h>

#include <algorithm>
#include <csignal>
#include <random>

#include "core/processor.h"
#include "support/masks.h"

namespace zorvac::test {
namespace {

register_file file;
void (*next)();                 // the routine, until it has been called
std::uint64_t* return_address;  // its place on the stack

void exchange(void* frame, void* mine, std::size_t bytes) {
  auto* const framed = static_cast<char*>(frame);
  std::swap_ranges(framed, framed + bytes, static_cast<char*>(mine));
}

// The parts of the vector state by number: XMM, the upper halves of YMM, masks, the upper halves of
// ZMM, the other 16 ZMM. The kernel writes which parts a frame has to the last words of the FXSAVE
// area, which are reserved for software. The header after that area says which parts are loaded.
// Masks have 64 bits from AVX512BW on.
void exchange_vectors(_xstate& frame) {
  const auto place = [](std::uint32_t part) { return hardware_processor::cpuid(0xd, part).ebx; };
  static const struct {
    std::uint32_t part;
    std::size_t place;
    void* mine;
    std::size_t count, bytes;
  } parts[] = {{1, offsetof(_fpstate, _xmm), &file.vector[0][0], 16, 16},
               {2, place(2), &file.vector[0][16], 16, 16},
               {5, place(5), &file.mask, __builtin_cpu_supports("avx512bw") != 0, 64},
               {6, place(6), &file.vector[0][32], 16, 32},
               {7, place(7), &file.vector[16][0], 16, 64}};
  const auto& of_kernel = reinterpret_cast<const _fpx_sw_bytes*>(&frame.fpstate + 1)[-1];
  auto* const bytes = reinterpret_cast<unsigned char*>(&frame);
  for (const auto& p : parts) {
    if ((of_kernel.xstate_bv >> p.part & 1) == 0) continue;
    frame.xstate_hdr.xstate_bv |= std::uint64_t{1} << p.part;
    for (std::size_t i = 0; i < p.count; ++i)
      exchange(bytes + p.place + i * p.bytes, static_cast<char*>(p.mine) + i * 64, p.bytes);
  }
}

void exchange_all(int, siginfo_t*, void* context) {
  auto& [general, vectors, reserved] = static_cast<ucontext_t*>(context)->uc_mcontext;
  exchange(general, &file.general, sizeof file.general);
  exchange(&general[REG_EFL], &file.flags, sizeof file.flags);
  exchange(&vectors->mxcsr, &file.mxcsr, sizeof file.mxcsr);
  exchange(&vectors->cwd, &file.x87_control, sizeof file.x87_control);
  exchange_vectors(reinterpret_cast<_xstate&>(*vectors));
  if (next == nullptr) return;
  *return_address = static_cast<std::uint64_t>(general[REG_RIP]);
  general[REG_RIP] = reinterpret_cast<greg_t>(next);
  next = nullptr;
}

}  // namespace

register_file filled_registers(unsigned seed) {
  register_file filled;
  auto* const words = reinterpret_cast<std::uint64_t*>(&filled);
  std::generate_n(words, offsetof(register_file, mxcsr) / 8, std::mt19937_64(seed));
  return filled;
}

register_file call_with_registers(void (*routine)(), const register_file& in) {
  struct sigaction action {};
  action.sa_sigaction = exchange_all;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, nullptr);

  alignas(16) std::uint64_t stack[1 << 14];
  return_address = std::copy(in.above.begin(), in.above.end(), std::end(stack) - 4) - 5;
  next = routine;
  file = in;
  file.general[rsp] = reinterpret_cast<std::uint64_t>(return_address);
  asm volatile("int3\n\tint3" ::: "memory");
  std::copy_n(return_address + 1, 4, file.above.begin());
  file.general[rsp] += in.general[rsp] - reinterpret_cast<std::uint64_t>(return_address + 1);
  return file;
}

std::vector<std::string> changed_registers(const register_file& before,
                                           const register_file& after) {
  static constexpr const char* names[] = {"r8",  "r9",  "r10", "r11", "r12", "r13", "r14", "r15",
                                          "rdi", "rsi", "rbp", "rbx", "rdx", "rax", "rcx", "rsp"};
  std::vector<std::string> changed;
  for (std::size_t i = 0; i < 16; ++i)
    if (i != r10 && i != r11 && before.general[i] != after.general[i]) changed.push_back(names[i]);
  for (std::size_t i = 0; i < 32; ++i)
    if (before.vector[i] != after.vector[i]) changed.push_back("vector " + std::to_string(i));
  if (before.mask != after.mask) changed.push_back("masks");
  if (before.above != after.above) changed.push_back("stack above the return address");
  if (before.mxcsr != after.mxcsr) changed.push_back("mxcsr");
  if (before.x87_control != after.x87_control) changed.push_back("x87 control word");
  if ((after.flags & flags_bit::direction) != 0) changed.push_back("direction flag");
  return changed;
}

}  // namespace zorvac::test
