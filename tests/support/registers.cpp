// The C++ side of the register shim.
#include "support/registers.h"

#include <cpuid.h>

#include <cstddef>
#include <cstring>

#include "core/processor.h"

namespace zorvac::test {

static_assert(offsetof(register_file, vector) == 128);
static_assert(offsetof(register_file, mask) == 128 + 32 * 64);
static_assert(offsetof(register_file, mxcsr) == 128 + 32 * 64 + 64);
static_assert(offsetof(register_file, flags) == 128 + 32 * 64 + 72);

extern "C" void zorvac_test_call(void (*routine)(), const register_file* in, register_file* out,
                                 int bytes);

namespace {

// The widest register state that this machine has: bytes of a vector register (16, 32 or 64; with
// 64 there are 32 of them and mask registers).
int vector_bytes() {
  static const int bytes = [] {
    const hardware_processor p;
    if ((p.cpuid(1, 0).ecx >> 27 & 1) == 0) return 16;
    const std::uint64_t xcr0 = p.xgetbv();
    const std::uint32_t leaf7_ebx = p.cpuid(0, 0).eax >= 7 ? p.cpuid(7, 0).ebx : 0;
    // The 64-bit mask moves of the shim are AVX512BW.
    if (has(xcr0, xcr0_ymm | xcr0_zmm) && has(leaf7_ebx, 1u << 16 | 1u << 30)) return 64;
    return has(xcr0, xcr0_ymm) && has(p.cpuid(1, 0).ecx, 1u << 28) ? 32 : 16;
  }();
  return bytes;
}

}  // namespace

register_file filled_registers(unsigned seed) {
  register_file file;
  std::uint64_t state = seed * 2654435761u + 1;
  const auto next = [&] {
    state = state * 6364136223846793005u + 1442695040888963407u;
    return state >> 11;
  };
  for (std::uint64_t& word : file.general) word = next() << 13 ^ next();
  for (auto& reg : file.vector)
    for (std::uint8_t& byte : reg) byte = static_cast<std::uint8_t>(next());
  for (std::uint64_t& word : file.mask) word = next() << 13 ^ next();
  return file;
}

register_file call_with_registers(void (*routine)(), const register_file& in) {
  register_file out;
  zorvac_test_call(routine, &in, &out, vector_bytes());
  return out;
}

std::vector<std::string> changed_registers(const register_file& before,
                                           const register_file& after) {
  static constexpr const char* names[] = {"rax", "rcx", "rdx", "rbx", "rsp", "rbp", "rsi", "rdi",
                                          "r8",  "r9",  "r10", "r11", "r12", "r13", "r14", "r15"};
  std::vector<std::string> changed;
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == rsp || i == r10 || i == r11) continue;
    if (before.general[i] != after.general[i]) changed.emplace_back(names[i]);
  }
  const auto bytes = static_cast<std::size_t>(vector_bytes());
  for (std::size_t i = 0; i < (bytes == 64 ? 32 : 16); ++i)
    if (std::memcmp(before.vector[i].data(), after.vector[i].data(), bytes) != 0)
      changed.push_back("vector " + std::to_string(i));
  if (vector_bytes() == 64)
    for (std::size_t i = 0; i < before.mask.size(); ++i)
      if (before.mask[i] != after.mask[i]) changed.push_back("mask " + std::to_string(i));
  if (before.mxcsr != after.mxcsr) changed.emplace_back("mxcsr");
  if (before.x87_control != after.x87_control) changed.emplace_back("x87 control word");
  return changed;
}

}  // namespace zorvac::test
