// Both hops of a fast entry point, from outside: to the variant that the indicator selects, and
// from the variant to its worker or to the C library. The program has its own variants, workers,
// memcpy, memmove, memset and detection (stand_ins.S), which change no register, so that a call
// shows what the library's stubs do.
#include "support/dispatch.h"

#include <dlfcn.h>

#include <array>

#include "zorvac/mem.h"

extern "C" {
extern const void* zorvac_test_block;
extern std::uint64_t zorvac_test_detected;
extern void* zorvac_test_library_detection;
extern int zorvac_test_detections;
}

namespace zorvac::test {
namespace {

struct dispatcher {
  void* entry;
  selections rows;
};
const dispatcher dispatchers[] = {
    {reinterpret_cast<void*>(_zorva_fast_memcpy),
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

// What the library itself has under a name.
void* in_library(const std::string& name) {
  void* const library = dlopen("libzorvac.so.5", RTLD_NOW | RTLD_NOLOAD);
  void* const symbol = library != nullptr ? dlsym(library, name.c_str()) : nullptr;
  EXPECT_NE(symbol, nullptr) << dlerror();
  return symbol;
}

TEST(Dispatch, SelectsTheVariantOfTheIndicator) {
  for (const auto& d : dispatchers) expect_selections(d.entry, d.rows);
}

TEST(Dispatch, VariantsLeadToTheirWorkers) {
  for (const auto& d : dispatchers)
    for (const selection& row : d.rows) {
      if (row.mask == 1) continue;  // the C library's routines do their work, see below
      EXPECT_EQ(taken_from(in_library(row.variant)), row.worker);
    }
}

// Once, and by the result, whether that is a foreign processor's, another's, or (0) what the
// library finds here. Bits other than bit 0 do not pass for a detected processor.
TEST(Dispatch, DetectsWhenBitZeroIsClear) {
  zorvac_test_library_detection = in_library("__zorva_cpu_features_init");
  for (const auto& d : dispatchers)
    for (const std::uint64_t result :
         {0x0ul, 0x1ul, 0x7ful, 0x1fful, 0x17fful, 0x9d97fful, 0x7389d97fful})
      for (const std::uint64_t before : {0x0ul, 0x7389d97feul}) {
        __zorva_cpu_feature_indicator = before;
        zorvac_test_detected = result;
        zorvac_test_detections = 0;
        for (int call = 0; call < 3; ++call) {
          const std::string variant = taken_from(d.entry);
          EXPECT_EQ(variant, selected(d.rows, __zorva_cpu_feature_indicator)) << result;
        }
        EXPECT_EQ(zorvac_test_detections, 1);
      }
}

// The generic variants lead to the process's own routines, arguments and result intact.
TEST(GenericVariants, ReachTheProcessesOwnRoutines) {
  std::array<char, 9> to{"........"};
  zorvac_test_block = to.data();
  const auto copy = [&](const char* variant, const char* from, std::size_t count) {
    using function = void*(void*, const void*, std::size_t);
    return reinterpret_cast<function*>(in_library(variant))(to.data(), from, count);
  };
  EXPECT_EQ(copy("_zorva_fast_memcpy.A", "abcdefgh", 5), to.data());
  EXPECT_STREQ(zorvac_test_names + zorvac_test_taken, "memcpy");
  EXPECT_STREQ(to.data(), "abcde...");
  EXPECT_EQ(copy("_zorva_fast_memmove.A", to.data() + 1, 4), to.data());
  EXPECT_STREQ(zorvac_test_names + zorvac_test_taken, "memmove");
  EXPECT_STREQ(to.data(), "bcdee...");
  using fill = void*(void*, int, std::size_t);
  EXPECT_EQ(reinterpret_cast<fill*>(in_library("_zorva_fast_memset.A"))(to.data(), 0x178, 2),
            to.data());
  EXPECT_STREQ(zorvac_test_names + zorvac_test_taken, "memset");
  EXPECT_STREQ(to.data(), "xxdee...");
}

}  // namespace
}  // namespace zorvac::test
