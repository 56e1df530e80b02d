// The second hop: from the variant to its worker or to the C library, and detection in front of it
// all. The program has its own workers, memcpy, memmove, memset and detection; the dispatchers and
// the variants are the library's.
#include <gtest/gtest.h>

#include <array>

#include "mem/selection.h"
#include "support/registers.h"

extern "C" {
extern const char zorvac_test_names[];
extern std::uint32_t zorvac_test_taken;
extern const void* zorvac_test_block;
extern std::uint64_t zorvac_test_detected;
extern int zorvac_test_detections;
}

namespace zorvac::test {
namespace {

class Forward : public testing::TestWithParam<dispatcher> {};

TEST_P(Forward, ReachesTheWorkerWithEveryRegisterUnchanged) {
  for (const selection& row : GetParam().rows) {
    if (row.mask == 1) continue;  // the C library's routines do their work
    zorvac_test_taken = 0;
    __zorva_cpu_feature_indicator = row.mask;
    const register_file in = filled_registers(7);
    const register_file out = call_with_registers(GetParam().entry, in);
    EXPECT_EQ(std::string(zorvac_test_names + zorvac_test_taken), row.worker);
    EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{}) << row.variant;
  }
}

TEST_P(Forward, DetectsOnceAndDispatchesByTheResult) {
  for (const selection& row : GetParam().rows) {
    if (row.mask == 1) continue;
    __zorva_cpu_feature_indicator = 0;
    zorvac_test_detected = row.mask;
    zorvac_test_detections = 0;
    for (int call = 0; call < 3; ++call) {
      zorvac_test_taken = 0;
      const register_file in = filled_registers(11);
      const register_file out = call_with_registers(GetParam().entry, in);
      EXPECT_EQ(std::string(zorvac_test_names + zorvac_test_taken), row.worker);
      EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{}) << row.variant;
    }
    EXPECT_EQ(zorvac_test_detections, 1) << row.variant;
  }
}

INSTANTIATE_TEST_SUITE_P(Fast, Forward, testing::ValuesIn(dispatchers()), name_of_dispatcher);

// The generic variants lead to the process's own memcpy, memmove and memset, with the arguments and
// the result intact. Detection has to run first, and finds a foreign processor.
TEST(GenericVariants, ReachTheProcessesOwnRoutines) {
  std::array<char, 9> to{"........"};
  const auto taken = [&](const char* expected) {
    EXPECT_STREQ(zorvac_test_names + zorvac_test_taken, expected);
    zorvac_test_taken = 0;
    __zorva_cpu_feature_indicator = 0;
  };
  zorvac_test_detected = 1;
  zorvac_test_detections = 0;
  zorvac_test_block = to.data();
  __zorva_cpu_feature_indicator = 0;

  EXPECT_EQ(_zorva_fast_memcpy(to.data(), "abcdefgh", 5), to.data());
  taken("memcpy");
  EXPECT_STREQ(to.data(), "abcde...");
  EXPECT_EQ(_zorva_fast_memmove(to.data(), to.data() + 1, 4), to.data());
  taken("memmove");
  EXPECT_STREQ(to.data(), "bcdee...");
  EXPECT_EQ(_zorva_fast_memset(to.data(), 0x100 + 'x', 2), to.data());
  taken("memset");
  EXPECT_STREQ(to.data(), "xxdee...");
  EXPECT_EQ(zorvac_test_detections, 3);
}

}  // namespace
}  // namespace zorvac::test
