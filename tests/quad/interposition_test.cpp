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

#define INTERPOSE_QUAD(name, ...) \
  void name(void*, __VA_ARGS__) { calls += #name " "; }
#define INTERPOSE(result, name, ...) \
  result name(__VA_ARGS__) {         \
    calls += #name " ";              \
    return 0;                        \
  }
INTERPOSE_QUAD(__addq, const void*, const void*)
INTERPOSE_QUAD(__subq, const void*, const void*)
INTERPOSE_QUAD(__negq, const void*)
INTERPOSE_QUAD(__itoq, int32_t)
INTERPOSE_QUAD(__jtoq, int64_t)
INTERPOSE_QUAD(__ftoq, float)
INTERPOSE_QUAD(__dtoq, double)
INTERPOSE_QUAD(__ltoq, long double)
INTERPOSE(int, __neq, const void*, const void*)
INTERPOSE(int, __ltq, const void*, const void*)
INTERPOSE(int, __leq, const void*, const void*)
INTERPOSE(int, __gtq, const void*, const void*)
INTERPOSE(int, __geq, const void*, const void*)
INTERPOSE(int, __compareq, const void*, const void*)
INTERPOSE(float, __qtof, const void*)
INTERPOSE(double, __qtod, const void*)
INTERPOSE(long double, __qtol, const void*)

int __eqq(const void*, const void*) {
  calls += "__eqq ";
  return 1;
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
static void pass_on(const char* name, void* result, const void* a, const void* b) {
  calls += std::string(name) + " ";
  reinterpret_cast<operation>(dlsym(RTLD_NEXT, name))(result, a, b);
}
void __mulq(void* result, const void* a, const void* b) { pass_on("__mulq", result, a, b); }
void __divq(void* result, const void* a, const void* b) { pass_on("__divq", result, a, b); }

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

// A sum of squares is one thing whose parts the division calls twice; .L is what 0xff chooses.
#define MUL "__mulq __mulq.L "
#define DIV "__divq __divq.L "

unsigned char q[32], a[32], b[32], c[32], d[32];

struct hop {
  const char* name;
  void (*call)();
  const char* calls;
};
const hop hops[] = {
    {"a_addq", [] { a_addq(q, a, b); }, "__addq "},
    {"a_subq", [] { a_subq(q, a, b); }, "__subq "},
    {"a_mulq", [] { a_mulq(q, a, b); }, MUL},
    {"a_divq", [] { a_divq(q, a, b); }, DIV},
    {"a_negq", [] { a_negq(q, a); }, "__negq "},
    {"a_eqq", [] { a_eqq(a, b); }, "__eqq "},
    {"a_neq", [] { a_neq(a, b); }, "__neq "},
    {"a_ltq", [] { a_ltq(a, b); }, "__ltq "},
    {"a_leq", [] { a_leq(a, b); }, "__leq "},
    {"a_gtq", [] { a_gtq(a, b); }, "__gtq "},
    {"a_geq", [] { a_geq(a, b); }, "__geq "},
    {"compareq", [] { compareq(a, b); }, "__compareq "},
    {"a_itoq", [] { a_itoq(q, 1); }, "__itoq "},
    {"a_ctoq", [] { a_ctoq(q, 1); }, "__itoq "},
    {"a_stoq", [] { a_stoq(q, 1); }, "__itoq "},
    {"a_jtoq", [] { a_jtoq(q, 1); }, "__jtoq "},
    {"a_ftoq", [] { a_ftoq(q, 1); }, "__ftoq "},
    {"a_dtoq", [] { a_dtoq(q, 1); }, "__dtoq "},
    {"a_ltoq", [] { a_ltoq(q, 1); }, "__ltoq "},
    {"a_qtoi", [] { a_qtoi(a, 3); }, "__qtoi:3 "},
    {"a_qtoc", [] { a_qtoc(a, 2); }, "__qtoi:2 "},
    {"a_qtos", [] { a_qtos(a, 1); }, "__qtoi:1 "},
    {"a_qtoj", [] { a_qtoj(a, 3); }, "__qtoj:3 "},
    {"a_qtof", [] { a_qtof(a); }, "__qtof "},
    {"a_qtod", [] { a_qtod(a); }, "__qtod "},
    {"a_qtol", [] { a_qtol(a); }, "__qtol "},
    {"__caddq", [] { __caddq(q, a, b, c, d); }, "__addq __addq "},
    {"a_caddq", [] { a_caddq(q, a, b, c, d); }, "__addq __addq "},
    {"__csubq", [] { __csubq(q, a, b, c, d); }, "__subq __subq "},
    {"a_csubq", [] { a_csubq(q, a, b, c, d); }, "__subq __subq "},
    {"__cmulq", [] { __cmulq(q, a, b, c, d); }, MUL MUL MUL MUL "__subq __addq "},
    {"a_cmulq", [] { a_cmulq(q, a, b, c, d); }, MUL MUL MUL MUL "__subq __addq "},
    {"__ceqq", [] { __ceqq(a, b, c, d); }, "__eqq __eqq "},
    {"a_ctocq", [] { a_ctocq(q, a); }, "__ftoq __ftoq "},
    {"a_cdtocq", [] { a_cdtocq(q, a); }, "__dtoq __dtoq "},
    {"a_ftocq", [] { a_ftocq(q, 1); }, "__ftoq "},
    {"a_dtocq", [] { a_dtocq(q, 1); }, "__dtoq "},
    {"a_itocq", [] { a_itocq(q, 1); }, "__itoq "},
    {"a_jtocq", [] { a_jtocq(q, 1); }, "__jtoq "},
    {"a_chtocq", [] { a_chtocq(q, 1); }, "__itoq "},
    {"a_stocq", [] { a_stocq(q, 1); }, "__itoq "},
    {"a_cqtoc", [] { a_cqtoc(q, a); }, "__qtof __qtof "},
    {"a_cqtocd", [] { a_cqtocd(q, a); }, "__qtod __qtod "},
    {"a_cqtof", [] { a_cqtof(a); }, "__qtof "},
    {"a_cqtod", [] { a_cqtod(a); }, "__qtod "},
    {"a_cqtoi", [] { a_cqtoi(a); }, "__qtoi:0 "},
    {"a_cqtoch", [] { a_cqtoch(a); }, "__qtoi:0 "},
    {"a_cqtos", [] { a_cqtos(a); }, "__qtoi:0 "},
    {"a_cqtoj", [] { a_cqtoj(a); }, "__qtoj:0 "},
};

TEST(Interposition, ReachesEveryHop) {
  __zorva_cpu_feature_indicator = 0xff;
  for (const hop& h : hops) {
    calls.clear();
    h.call();
    EXPECT_EQ(calls, h.calls) << h.name;
  }
}

// The division reads its operands in an order of its own; what it is made of is what counts.
TEST(Interposition, ReachesTheStepsOfComplexDivision) {
  __zorva_cpu_feature_indicator = 0xff;
  for (const auto divide : {__cdivq, a_cdivq}) {
    calls.clear();
    divide(q, a, b, c, d);
    const auto count = [](const std::string& name) {
      int n = 0;
      for (auto at = calls.find(name); at != std::string::npos; at = calls.find(name, at + 1)) ++n;
      return n;
    };
    EXPECT_EQ(count("__mulq "), 8);
    EXPECT_EQ(count("__divq "), 1);
    EXPECT_EQ(count("__addq "), 2);
    EXPECT_EQ(count("__subq "), 1);
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
