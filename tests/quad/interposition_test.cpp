// The shared library from outside: this program defines the routines that others stand on, and
// sees every call of them. What a caller replaces must be replaced for the library, too; and
// which body the processor's features choose becomes visible.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// Each operation, with its entries. All of them take addresses first, or one value in a register of
// its own, and ignore what they do not take: one call fits all.
struct hop {
  std::string calls;
  std::vector<const char*> entries;
};
const hop hops[] = {
    {"__addq ", {"a_addq"}},
    {"__subq ", {"a_subq"}},
    {MUL, {"a_mulq"}},
    {DIV, {"a_divq"}},
    {"__negq ", {"a_negq"}},
    {"__eqq ", {"a_eqq"}},
    {"__neq ", {"a_neq"}},
    {"__ltq ", {"a_ltq"}},
    {"__leq ", {"a_leq"}},
    {"__gtq ", {"a_gtq"}},
    {"__geq ", {"a_geq"}},
    {"__compareq ", {"compareq"}},
    {"__itoq ", {"a_itoq", "a_ctoq", "a_stoq", "a_itocq", "a_chtocq", "a_stocq"}},
    {"__jtoq ", {"a_jtoq", "a_jtocq"}},
    {"__ftoq ", {"a_ftoq", "a_ftocq"}},
    {"__dtoq ", {"a_dtoq", "a_dtocq"}},
    {"__ltoq ", {"a_ltoq"}},
    {"__qtof ", {"a_qtof", "a_cqtof"}},
    {"__qtod ", {"a_qtod", "a_cqtod"}},
    {"__qtol ", {"a_qtol"}},
    {"__qtoi:0 ", {"a_cqtoi", "a_cqtoch", "a_cqtos"}},
    {"__qtoj:0 ", {"a_cqtoj"}},
    {"__addq __addq ", {"__caddq", "a_caddq"}},
    {"__subq __subq ", {"__csubq", "a_csubq"}},
    {"__negq __negq ", {"__cnegq", "a_cnegq"}},
    {MUL MUL MUL MUL "__subq __addq ", {"__cmulq", "a_cmulq"}},
    {MUL MUL "__addq " DIV MUL MUL MUL MUL "__addq __subq " MUL MUL, {"__cdivq", "a_cdivq"}},
    {"__eqq __eqq ", {"__ceqq"}},
    {"__neq __neq ", {"__cneq"}},
    {"__ftoq __ftoq ", {"a_ctocq"}},
    {"__dtoq __dtoq ", {"a_cdtocq"}},
    {"__qtof __qtof ", {"a_cqtoc"}},
    {"__qtod __qtod ", {"a_cqtocd"}},
};

TEST(Interposition, ReachesEveryHop) {
  __zorva_cpu_feature_indicator = 0xff;
  for (const hop& h : hops)
    for (const char* entry : h.entries) {
      calls.clear();
      using any = void (*)(void*, void*, void*, void*, void*);
      reinterpret_cast<any>(dlsym(RTLD_DEFAULT, entry))(q, a, b, c, d);
      EXPECT_EQ(calls, h.calls) << entry;
    }
  calls.clear();
  a_qtoi(a, 3), a_qtoc(a, 2), a_qtos(a, 1), a_qtoj(a, 3);
  EXPECT_EQ(calls, "__qtoi:3 __qtoi:2 __qtoi:1 __qtoj:3 ");
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
