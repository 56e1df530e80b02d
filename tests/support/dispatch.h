#ifndef ZORVAC_TESTS_SUPPORT_DISPATCH_H
#define ZORVAC_TESTS_SUPPORT_DISPATCH_H
// A dispatcher as a program sees it whose own functions stand in for the variants (stand_in.inc):
// which one each indicator leads to, and that no register changes on the way.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/registers.h"
#include "zorvac/cpu.h"

extern "C" {
extern const char zorvac_test_names[];
extern std::uint32_t zorvac_test_taken;
}

namespace zorvac::test {

// The contract in literal masks, kept apart from the library's named levels. The most demanding row
// comes first; the last needs bit 0 alone.
struct selection {
  std::uint64_t mask;
  std::string variant, worker = {};
};
using selections = std::vector<selection>;

inline std::string selected(const selections& rows, std::uint64_t indicator) {
  for (const selection& row : rows)
    if ((indicator & row.mask) == row.mask) return row.variant;
  return "none";
}

// Calls a routine with every register filled, none of which may change; tells where it led.
inline std::string taken_from(void* routine) {
  static unsigned seed = 0;
  zorvac_test_taken = 0;
  const register_file in = filled_registers(++seed);
  const register_file out = call_with_registers(reinterpret_cast<void (*)()>(routine), in);
  EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{});
  return zorvac_test_names + zorvac_test_taken;
}

// Every mask, every mask without any one of its bits except bit 0, and each with all other bits set
// or all that no mask asks for; each on the heels of another.
inline void expect_selections(void* entry, const selections& rows) {
  for (const selection& row : rows)
    for (int bit = 1; bit < 64; ++bit) {
      const std::uint64_t one = std::uint64_t{1} << bit;
      for (const std::uint64_t indicator :
           {row.mask, row.mask ^ one, ~one, row.mask | ~rows[0].mask}) {
        __zorva_cpu_feature_indicator = indicator;
        ASSERT_EQ(taken_from(entry), selected(rows, indicator)) << std::hex << indicator;
      }
    }
}

}  // namespace zorvac::test
#endif
