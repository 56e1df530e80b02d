// The C++ side of the register shim.
#include "support/registers.h"

#include <algorithm>
#include <cfenv>
#include <cstring>
#include <random>

namespace zorvac::test {

static_assert(offsetof(register_file, flags) == 16 * 8 + 32 * 64 + 8 * 8 + 4 * 8 + 4 + 4);

extern "C" void zorvac_test_call(void (*routine)(), register_file* file, int bytes);

register_file filled_registers(unsigned seed) {
  std::array<std::uint64_t, offsetof(register_file, mxcsr) / 8> words;
  std::generate(words.begin(), words.end(), std::mt19937_64(seed));
  register_file file;
  std::memcpy(static_cast<void*>(&file), words.data(), sizeof words);
  return file;
}

register_file call_with_registers(void (*routine)(), const register_file& in) {
  // Bytes of the widest vector registers. The 64-bit mask moves of the shim are AVX512BW.
  static const int bytes = __builtin_cpu_supports("avx512bw") != 0 ? 64
                           : __builtin_cpu_supports("avx") != 0    ? 32
                                                                   : 16;
  std::fenv_t callers;
  std::fegetenv(&callers);
  register_file out = in;
  zorvac_test_call(routine, &out, bytes);
  std::fesetenv(&callers);
  return out;
}

std::vector<std::string> changed_registers(const register_file& before,
                                           const register_file& after) {
  static constexpr const char* names[] = {"rax", "rcx", "rdx", "rbx", "rsp", "rbp", "rsi", "rdi",
                                          "r8",  "r9",  "r10", "r11", "r12", "r13", "r14", "r15"};
  std::vector<std::string> changed;
  const auto compare = [&changed](const auto& a, const auto& b, const std::string& name) {
    if (a != b) changed.push_back(name);
  };
  for (std::size_t i = 0; i < 16; ++i)
    if (i != r10 && i != r11) compare(before.general[i], after.general[i], names[i]);
  for (std::size_t i = 0; i < 32; ++i)
    compare(before.vector[i], after.vector[i], "vector " + std::to_string(i));
  for (std::size_t i = 0; i < 8; ++i)
    compare(before.mask[i], after.mask[i], "mask " + std::to_string(i));
  compare(before.above, after.above, "stack above the return address");
  compare(before.mxcsr, after.mxcsr, "mxcsr");
  compare(before.x87_control, after.x87_control, "x87 control word");
  return changed;
}

}  // namespace zorvac::test
