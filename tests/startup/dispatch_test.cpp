// The dispatchers of the letter-coded start-up checks, as a program sees them: which variant each
// takes for which indicator, that a program can replace every variant, and that the stubs leave
// all registers alone.
//
// This program defines all 40 variants itself. They note their number and the flags word they were
// given, touching memory only, so that whatever changes in a register was changed by the stub.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/name_of_row.h"
#include "support/registers.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

extern "C" {
int taken_variant;
int taken_flags;
}

asm(".macro variant number, name\n"
    ".globl \\name\n"
    ".type \\name, @function\n"
    "\\name: movl $\\number, taken_variant(%rip)\n"
    "movl %edi, taken_flags(%rip)\n"
    "ret\n"
    ".size \\name, . - \\name\n"
    ".endm\n"
    ".text\n");
#define DEFINE_VARIANT(number, name) asm("variant " #number ", __zorva_" name);
// clang-format off
#define VARIANTS(X) \
  X(1, "new_proc_init.H") X(2, "new_proc_init.A") X(3, "new_proc_init_B.L") \
  X(4, "new_proc_init_B.K") X(5, "new_proc_init_B.J") X(6, "new_proc_init_B.A") \
  X(7, "new_proc_init_N.L") X(8, "new_proc_init_N.K") X(9, "new_proc_init_N.J") \
  X(10, "new_proc_init_N.A") X(11, "new_proc_init_P.L") X(12, "new_proc_init_P.A") \
  X(13, "new_proc_init_T.M") X(14, "new_proc_init_T.A") X(15, "new_proc_init_L.O") \
  X(16, "new_proc_init_L.A") X(17, "new_proc_init_S.N") X(18, "new_proc_init_S.A") \
  X(19, "new_proc_init_H.P") X(20, "new_proc_init_H.A") X(21, "new_proc_init_G.R") \
  X(22, "new_proc_init_G.A") X(23, "new_proc_init_I.S") X(24, "new_proc_init_I.A") \
  X(25, "new_proc_init_E.V") X(26, "new_proc_init_E.A") X(27, "proc_init.H") X(28, "proc_init.A") \
  X(29, "proc_init_B.L") X(30, "proc_init_B.K") X(31, "proc_init_B.J") X(32, "proc_init_B.A") \
  X(33, "proc_init_N.L") X(34, "proc_init_N.K") X(35, "proc_init_N.J") X(36, "proc_init_N.A") \
  X(37, "proc_init_P.L") X(38, "proc_init_P.A") X(39, "proc_init_T.M") X(40, "proc_init_T.A")
// clang-format on
VARIANTS(DEFINE_VARIANT)

namespace {

using namespace zorvac::test;

#define VARIANT_NAME(number, name) "__zorva_" name,
constexpr const char* variant_names[] = {"none", VARIANTS(VARIANT_NAME)};

struct level {
  std::uint64_t mask;
  const char* variant;
};
struct dispatcher {
  const char* name;
  void (*routine)();
  std::vector<level> levels;
};
template <class Routine>
auto untyped(Routine* routine) {
  return reinterpret_cast<void (*)()>(routine);
}

#define DISPATCHER(name, ...)                                  \
  {                                                            \
    "__zorva_" #name, untyped(__zorva_##name), { __VA_ARGS__ } \
  }
const dispatcher dispatchers[] = {
    DISPATCHER(new_proc_init, {0x3f, "H"}),
    DISPATCHER(new_proc_init_B, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(new_proc_init_N, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(new_proc_init_P, {0xff, "L"}),
    DISPATCHER(new_proc_init_T, {0x1ff, "M"}),
    DISPATCHER(new_proc_init_L, {0x1ff, "O"}),
    DISPATCHER(new_proc_init_S, {0x3ff, "N"}),
    DISPATCHER(new_proc_init_H, {0x17ff, "P"}),
    DISPATCHER(new_proc_init_G, {0x117ff, "R"}),
    DISPATCHER(new_proc_init_I, {0x197ff, "S"}),
    DISPATCHER(new_proc_init_E, {0x9d97ff, "V"}),
    DISPATCHER(proc_init, {0x3f, "H"}),
    DISPATCHER(proc_init_B, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(proc_init_N, {0xff, "L"}, {0x7f, "K"}),
    DISPATCHER(proc_init_P, {0xff, "L"}),
    DISPATCHER(proc_init_T, {0x1ff, "M"}),
};

class StartupDispatch : public testing::TestWithParam<dispatcher> {
 protected:
  // The variant that is taken under an indicator, which must have bit 0.
  static std::string taken(std::uint64_t indicator) {
    __zorva_cpu_feature_indicator = indicator;
    return call();
  }
  static std::string call() {
    taken_variant = 0;
    const register_file before = filled_registers(7);
    const register_file after = call_with_registers(GetParam().routine, before);
    EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
    EXPECT_EQ(taken_flags, static_cast<int>(before.general[rdi]));
    return variant_names[taken_variant];
  }
  static std::string variant(const char* letter) {
    return std::string(GetParam().name) + "." + letter;
  }
  // What the table says should be taken.
  static std::string expected(std::uint64_t indicator) {
    for (const level& l : GetParam().levels)
      if ((indicator & l.mask) == l.mask) return variant(l.variant);
    return variant("A");
  }
};

TEST_P(StartupDispatch, TakesTheFirstMaskThatIsWhollyPresent) {
  EXPECT_EQ(taken(1), variant("A"));
  EXPECT_EQ(taken(~std::uint64_t{0}), variant(GetParam().levels[0].variant));
  for (const level& l : GetParam().levels) {
    EXPECT_EQ(taken(l.mask), variant(l.variant));
    for (int bit = 1; bit < 64; ++bit) {  // each bit of the mask missing, and each other one
      const std::uint64_t one = std::uint64_t{1} << bit;
      EXPECT_EQ(taken(l.mask & ~one), expected(l.mask & ~one)) << bit;
      EXPECT_EQ(taken(~one), expected(~one)) << bit;
      EXPECT_EQ(taken(l.mask | one), expected(l.mask | one)) << bit;
    }
  }
}

TEST_P(StartupDispatch, DetectsFirstWhenNothingIsKnown) {
  __zorva_cpu_feature_indicator = 0;
  const std::string variant = call();  // detection runs inside; no register may change
  EXPECT_EQ(__zorva_cpu_feature_indicator & 1, 1u);
  EXPECT_EQ(variant, expected(__zorva_cpu_feature_indicator));
}

INSTANTIATE_TEST_SUITE_P(Routines, StartupDispatch, testing::ValuesIn(dispatchers), name_of_row);

}  // namespace
