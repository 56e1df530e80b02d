// The shared library from outside: this program defines the routines that others stand on, and
// sees every call of them. What a caller replaces must be replaced for the library, too; and
// which body the processor's features choose becomes visible.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "zorvac/cpu.h"
#include "zorvac/quad.h"

static std::string calls;  // in order

extern "C" {

#define INTERPOSE(result, name, ...) \
  result name(__VA_ARGS__) {         \
    calls += #name " ";              \
    return result(1);                \
  }
INTERPOSE(void, __addq, void*, const void*, const void*)
INTERPOSE(void, __subq, void*, const void*, const void*)
INTERPOSE(void, __negq, void*, const void*)
INTERPOSE(void, __itoq, void*, int32_t)
INTERPOSE(void, __jtoq, void*, int64_t)
INTERPOSE(void, __ftoq, void*, float)
INTERPOSE(void, __dtoq, void*, double)
INTERPOSE(void, __ltoq, void*, long double)
INTERPOSE(int, __eqq, const void*, const void*)
INTERPOSE(int, __ltq, const void*, const void*)
INTERPOSE(int, __leq, const void*, const void*)
INTERPOSE(int, __gtq, const void*, const void*)
INTERPOSE(int, __geq, const void*, const void*)
INTERPOSE(int, __compareq, const void*, const void*)
INTERPOSE(float, __qtof, const void*)
INTERPOSE(double, __qtod, const void*)
using extended = long double;
INTERPOSE(extended, __qtol, const void*)

int __neq(const void*, const void*) {  // equal, or the second part would not matter
  calls += "__neq ";
  return 0;
}
int32_t __qtoi(const void*, int mode) {
  calls += "__qtoi:" + std::to_string(mode) + " ";
  return 0;
}
int64_t __qtoj(const void*, int mode) {
  calls += "__qtoj:" + std::to_string(mode) + " ";
  return 0;
}

// These two pass the call on, to show where they would have gone.
using operation = void (*)(void*, const void*, const void*);
#define INTERPOSE_AND_PASS_ON(name)                                     \
  void name(void* result, const void* a, const void* b) {               \
    calls += #name " ";                                                 \
    reinterpret_cast<operation>(dlsym(RTLD_NEXT, #name))(result, a, b); \
  }
INTERPOSE_AND_PASS_ON(__mulq)
INTERPOSE_AND_PASS_ON(__divq)

#define INTERPOSE_BODY(name, symbol)                          \
  void name(void*, const void*, const void*) __asm__(symbol); \
  void name(void*, const void*, const void*) { calls += symbol " "; }
INTERPOSE_BODY(mulq_l, "__mulq.L")
INTERPOSE_BODY(mulq_a, "__mulq.A")
INTERPOSE_BODY(divq_l, "__divq.L")
INTERPOSE_BODY(divq_a, "__divq.A")

// Detection promises to change no argument register, so it may only do this much.
static int detections;
__attribute__((no_caller_saved_registers, target("general-regs-only"))) void detection() __asm__(
    "__zorva_cpu_features_init");
void detection() {
  ++detections;
  __zorva_cpu_feature_indicator = 0xff;
}
}

namespace {

// .L is what 0xff chooses.
#define MUL "__mulq __mulq.L "
#define DIV "__divq __divq.L "

unsigned char q[32], a[32], b[32], c[32], d[32];

struct hop {
  const char* name;
  void (*call)();
  std::string calls;
};
#define HOP(entry, arguments, calls)       \
  {                                        \
#entry, [] { entry arguments; }, calls \
  }
const hop hops[] = {
    HOP(a_addq, (q, a, b), "__addq "),
    HOP(a_subq, (q, a, b), "__subq "),
    HOP(a_mulq, (q, a, b), MUL),
    HOP(a_divq, (q, a, b), DIV),
    HOP(a_negq, (q, a), "__negq "),
    HOP(a_eqq, (a, b), "__eqq "),
    HOP(a_neq, (a, b), "__neq "),
    HOP(a_ltq, (a, b), "__ltq "),
    HOP(a_leq, (a, b), "__leq "),
    HOP(a_gtq, (a, b), "__gtq "),
    HOP(a_geq, (a, b), "__geq "),
    HOP(compareq, (a, b), "__compareq "),
    HOP(a_itoq, (q, 1), "__itoq "),
    HOP(a_ctoq, (q, 1), "__itoq "),
    HOP(a_stoq, (q, 1), "__itoq "),
    HOP(a_jtoq, (q, 1), "__jtoq "),
    HOP(a_ftoq, (q, 1), "__ftoq "),
    HOP(a_dtoq, (q, 1), "__dtoq "),
    HOP(a_ltoq, (q, 1), "__ltoq "),
    HOP(a_qtoi, (a, 3), "__qtoi:3 "),
    HOP(a_qtoc, (a, 2), "__qtoi:2 "),
    HOP(a_qtos, (a, 1), "__qtoi:1 "),
    HOP(a_qtoj, (a, 3), "__qtoj:3 "),
    HOP(a_qtof, (a), "__qtof "),
    HOP(a_qtod, (a), "__qtod "),
    HOP(a_qtol, (a), "__qtol "),
    HOP(__caddq, (q, a, b, c, d), "__addq __addq "),
    HOP(a_caddq, (q, a, b, c, d), "__addq __addq "),
    HOP(__csubq, (q, a, b, c, d), "__subq __subq "),
    HOP(a_csubq, (q, a, b, c, d), "__subq __subq "),
    HOP(__cnegq, (q, a, b), "__negq __negq "),
    HOP(a_cnegq, (q, a, b), "__negq __negq "),
    HOP(__cmulq, (q, a, b, c, d), MUL MUL MUL MUL "__subq __addq "),
    HOP(a_cmulq, (q, a, b, c, d), MUL MUL MUL MUL "__subq __addq "),
    HOP(__cdivq, (q, a, b, c, d), MUL MUL "__addq " DIV MUL MUL MUL MUL "__addq __subq " MUL MUL),
    HOP(a_cdivq, (q, a, b, c, d), MUL MUL "__addq " DIV MUL MUL MUL MUL "__addq __subq " MUL MUL),
    HOP(__ceqq, (a, b, c, d), "__eqq __eqq "),
    HOP(__cneq, (a, b, c, d), "__neq __neq "),
    HOP(a_ctocq, (q, a), "__ftoq __ftoq "),
    HOP(a_cdtocq, (q, a), "__dtoq __dtoq "),
    HOP(a_ftocq, (q, 1), "__ftoq "),
    HOP(a_dtocq, (q, 1), "__dtoq "),
    HOP(a_itocq, (q, 1), "__itoq "),
    HOP(a_jtocq, (q, 1), "__jtoq "),
    HOP(a_chtocq, (q, 1), "__itoq "),
    HOP(a_stocq, (q, 1), "__itoq "),
    HOP(a_cqtoc, (q, a), "__qtof __qtof "),
    HOP(a_cqtocd, (q, a), "__qtod __qtod "),
    HOP(a_cqtof, (a), "__qtof "),
    HOP(a_cqtod, (a), "__qtod "),
    HOP(a_cqtoi, (a), "__qtoi:0 "),
    HOP(a_cqtoch, (a), "__qtoi:0 "),
    HOP(a_cqtos, (a), "__qtoi:0 "),
    HOP(a_cqtoj, (a), "__qtoj:0 "),
};

TEST(Interposition, ReachesEveryHop) {
  __zorva_cpu_feature_indicator = 0xff;
  for (const hop& h : hops) {
    calls.clear();
    h.call();
    EXPECT_EQ(calls, h.calls) << h.name;
  }
}

TEST(Dispatch, ChoosesByTheLowByteOfTheIndicator) {
  struct {
    uint64_t indicator;
    char variant;
    int detections;
  } static const rows[] = {
      {0xff, 'L', 0},    {0x1ff, 'L', 0}, {~uint64_t{0}, 'L', 0}, {0x7f, 'A', 0}, {1, 'A', 0},
      {0xff'fd, 'A', 0}, {0, 'L', 1},     {0xff'fe, 'L', 1},
  };
  for (const auto& row : rows) {
    for (const std::string name : {"__mulq", "__divq"}) {
      __zorva_cpu_feature_indicator = row.indicator;
      detections = 0;
      calls.clear();
      reinterpret_cast<operation>(dlsym(RTLD_NEXT, name.c_str()))(q, a, b);
      EXPECT_EQ(calls, name + '.' + row.variant + ' ') << std::hex << row.indicator;
      EXPECT_EQ(detections, row.detections) << std::hex << row.indicator;
    }
  }
}

}  // namespace
