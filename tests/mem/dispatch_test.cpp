// Both hops of a fast entry point, from outside: to the variant that the indicator selects, and
// from the variant to its worker or to the C library. The program has its own variants, workers,
// memcpy, memmove, memset and detection (stand_ins.S), which change no register, so that a call
// shows what the library's stubs do.
#include "support/dispatch.h"

#include <dlfcn.h>

#include "zorvac/mem.h"

extern "C" {
extern std::uint64_t zorvac_test_detected;
extern int zorvac_test_detections;
}

namespace zorvac::test {
namespace {

const struct {
  void* entry;
  selections rows;
} dispatchers[] = {{reinterpret_cast<void*>(_zorva_fast_memcpy),
                    {{0x7389d97ff, "_zorva_fast_memcpy.Z", "__zorva_vpx_avx512f_memcpy"},
                     {0x9d97ff, "_zorva_fast_memcpy.V", "__zorva_avx_rep_memcpy"},
                     {0x17ff, "_zorva_fast_memcpy.P", "__zorva_ssse3_rep_memcpy"},
                     {0x1ff, "_zorva_fast_memcpy.M", "__zorva_ssse3_memcpy"},
                     {0x7f, "_zorva_fast_memcpy.J", "__zorva_new_memcpy"},
                     {0x1, "_zorva_fast_memcpy.A", "memcpy"}}},
                   {reinterpret_cast<void*>(_zorva_fast_memmove),
                    {{0x17ff, "_zorva_fast_memmove.P", "__zorva_ssse3_rep_memmove"},
                     {0x1ff, "_zorva_fast_memmove.M", "__zorva_ssse3_memmove"},
                     {0x1, "_zorva_fast_memmove.A", "memmove"}}},
                   {reinterpret_cast<void*>(_zorva_fast_memset),
                    {{0x7389d97ff, "_zorva_fast_memset.Z", "__zorva_vpx_avx512f_memset"},
                     {0x9d97ff, "_zorva_fast_memset.V", "__zorva_avx_rep_memset"},
                     {0x7f, "_zorva_fast_memset.J", "__zorva_new_memset"},
                     {0x1, "_zorva_fast_memset.A", "memset"}}}};

TEST(Dispatch, SelectsTheVariantOfTheIndicator) {
  for (const auto& d : dispatchers) expect_selections(d.entry, d.rows);
}

// The library's own variants, whose place the program's have taken elsewhere.
TEST(Dispatch, VariantsLeadToTheirWorkers) {
  void* const library = dlopen("libzorvac.so.5", RTLD_NOW | RTLD_NOLOAD);
  for (const auto& d : dispatchers)
    for (const selection& row : d.rows)
      EXPECT_EQ(taken_from(dlsym(library, row.variant.c_str())), row.worker);
}

// Once, and by the result. Bits other than bit 0 do not pass for a detected processor.
TEST(Dispatch, DetectsWhenBitZeroIsClear) {
  for (const auto& d : dispatchers)
    for (const std::uint64_t result : {0x1ul, 0x7ful, 0x1fful, 0x17fful, 0x9d97fful, 0x7389d97fful})
      for (const std::uint64_t before : {0x0ul, 0x7389d97feul}) {
        __zorva_cpu_feature_indicator = before;
        zorvac_test_detected = result;
        zorvac_test_detections = 0;
        for (int call = 0; call < 3; ++call)
          EXPECT_EQ(taken_from(d.entry), selected(d.rows, result));
        EXPECT_EQ(zorvac_test_detections, 1);
      }
}

// Pools, too, call exported routines by their names.
std::string hops;
TEST(Pools, CallWhatTheProgramDefines) {
  static constexpr std::uint32_t sizes[] = {64, 0};
  __zorva_cpu_feature_indicator = 1;
  __i_pool_init(sizes, 1);
  EXPECT_NE(__i_pool_realloc(__i_pool_calloc(4, 16), 64), nullptr);
  EXPECT_EQ(hops, "lock unlock lock unlock malloc free ");
  EXPECT_STREQ(zorvac_test_names + zorvac_test_taken, "_zorva_fast_memcpy.A");
}

}  // namespace

extern "C" {
void __fast_lock(std::uint32_t*) { hops += "lock "; }
void __fast_unlock(std::uint32_t*) { hops += "unlock "; }
void* __i_pool_malloc(std::uint32_t) { return (hops += "malloc ").data(); }
void __i_pool_free(void*) { hops += "free "; }
}
}  // namespace zorvac::test
