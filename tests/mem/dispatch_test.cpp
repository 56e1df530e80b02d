// Both hops of a fast entry point, from outside: to the variant that the indicator selects, and
// from the variant to its worker or to the C library. The program has its own variants, workers,
// memcpy, memmove, memset and detection (stand_ins.S), which change no register, so that a call
// shows what the library's stubs do.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <ostream>
#include <string>
#include <vector>

#include "support/name_of_row.h"
#include "support/registers.h"
#include "zorvac/cpu.h"
#include "zorvac/mem.h"

extern "C" {
extern const char zorvac_test_names[];
extern std::uint32_t zorvac_test_taken;
extern const void* zorvac_test_block;
extern std::uint64_t zorvac_test_detected;
extern void* zorvac_test_library_detection;
extern int zorvac_test_detections;
}

namespace zorvac::test {
namespace {

// The contract in literal masks, kept apart from the library's named levels. The most demanding row
// comes first; the last needs bit 0 alone.
struct selection {
  std::uint64_t mask;
  const char *variant, *worker;
};
struct dispatcher {
  const char* name;
  void* entry;
  std::vector<selection> rows;
};
const dispatcher dispatchers[] = {
    {"Memcpy",
     reinterpret_cast<void*>(_zorva_fast_memcpy),
     {{0x7389d97ff, "_zorva_fast_memcpy.Z", "__zorva_vpx_avx512f_memcpy"},
      {0x9d97ff, "_zorva_fast_memcpy.V", "__zorva_avx_rep_memcpy"},
      {0x17ff, "_zorva_fast_memcpy.P", "__zorva_ssse3_rep_memcpy"},
      {0x1ff, "_zorva_fast_memcpy.M", "__zorva_ssse3_memcpy"},
      {0x7f, "_zorva_fast_memcpy.J", "__zorva_new_memcpy"},
      {0x1, "_zorva_fast_memcpy.A", "memcpy"}}},
    {"Memmove",
     reinterpret_cast<void*>(_zorva_fast_memmove),
     {{0x17ff, "_zorva_fast_memmove.P", "__zorva_ssse3_rep_memmove"},
      {0x1ff, "_zorva_fast_memmove.M", "__zorva_ssse3_memmove"},
      {0x1, "_zorva_fast_memmove.A", "memmove"}}},
    {"Memset",
     reinterpret_cast<void*>(_zorva_fast_memset),
     {{0x7389d97ff, "_zorva_fast_memset.Z", "__zorva_vpx_avx512f_memset"},
      {0x9d97ff, "_zorva_fast_memset.V", "__zorva_avx_rep_memset"},
      {0x7f, "_zorva_fast_memset.J", "__zorva_new_memset"},
      {0x1, "_zorva_fast_memset.A", "memset"}}}};
std::ostream& operator<<(std::ostream& out, const dispatcher& d) { return out << d.name; }

std::string selected(const dispatcher& d, std::uint64_t indicator) {
  for (const selection& row : d.rows)
    if ((indicator & row.mask) == row.mask) return row.variant;
  return "none";
}

// What the library itself has under a name.
void* in_library(const char* name) {
  void* const library = dlopen("libzorvac.so.5", RTLD_NOW | RTLD_NOLOAD);
  void* const symbol = library != nullptr ? dlsym(library, name) : nullptr;
  EXPECT_NE(symbol, nullptr) << dlerror();
  return symbol;
}

class Dispatch : public testing::TestWithParam<dispatcher> {
 protected:
  // Calls a routine with every register filled, none of which may change; tells where it led.
  static std::string taken_from(void* routine) {
    static unsigned seed = 0;
    zorvac_test_taken = 0;
    const register_file in = filled_registers(++seed);
    const register_file out = call_with_registers(reinterpret_cast<void (*)()>(routine), in);
    EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{});
    return zorvac_test_names + zorvac_test_taken;
  }
};

// Every mask, every mask without any one of its bits except bit 0, and each with all other bits set
// or all that the masks do not ask for; each on the heels of another.
TEST_P(Dispatch, SelectsTheVariantOfTheIndicator) {
  constexpr std::uint64_t masks[] = {0x7389d97ff, 0x9d97ff, 0x17ff, 0x1ff, 0x7f, 0x1};
  for (const std::uint64_t mask : masks)
    for (int bit = 1; bit < 64; ++bit) {
      const std::uint64_t one = std::uint64_t{1} << bit;
      for (const std::uint64_t indicator : {mask, mask ^ one, ~one, mask | ~masks[0]}) {
        __zorva_cpu_feature_indicator = indicator;
        ASSERT_EQ(taken_from(GetParam().entry), selected(GetParam(), indicator))
            << std::hex << indicator;
      }
    }
}

TEST_P(Dispatch, VariantsLeadToTheirWorkers) {
  for (const selection& row : GetParam().rows) {
    if (row.mask == 1) continue;  // the C library's routines do their work, see below
    EXPECT_EQ(taken_from(in_library(row.variant)), row.worker);
  }
}

// Once, and by the result, whether that is a foreign processor's, another's, or (0) what the
// library finds here. Bits other than bit 0 do not pass for a detected processor.
TEST_P(Dispatch, DetectsWhenBitZeroIsClear) {
  zorvac_test_library_detection = in_library("__zorva_cpu_features_init");
  std::vector<std::uint64_t> results{0};
  for (const selection& row : GetParam().rows) results.push_back(row.mask);
  for (const std::uint64_t result : results)
    for (const std::uint64_t before : {std::uint64_t{0}, ~std::uint64_t{1} & 0x7389d97ff}) {
      __zorva_cpu_feature_indicator = before;
      zorvac_test_detected = result;
      zorvac_test_detections = 0;
      for (int call = 0; call < 3; ++call) {
        const std::string variant = taken_from(GetParam().entry);
        EXPECT_EQ(variant, selected(GetParam(), __zorva_cpu_feature_indicator)) << result;
      }
      EXPECT_EQ(zorvac_test_detections, 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Fast, Dispatch, testing::ValuesIn(dispatchers), name_of_row);

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
