// The dispatchers of the letter-coded start-up checks, as a program sees them that defines all 40
// variants itself, and detection, too (stand_ins.S): which variant each takes for which indicator,
// that a program's own routine stands in for the library's on every hop, and that the stubs leave
// all registers alone, the flags word among them.
#include "support/dispatch.h"

#include "startup/checks.h"
#include "support/child.h"
#include "zorvac/startup.h"

extern "C" std::uint64_t zorvac_test_detected;  // what detection finds

namespace {

using namespace zorvac::test;

TEST(StartupDispatch, TakesTheFirstMaskThatIsWhollyPresent) {
  for (const check& c : checks) {
    SCOPED_TRACE(c.name);
    selections rows;
    for (const auto& [mask, letter] : c.variants)
      if (mask != never) rows.push_back({mask, c.name + letter});
    rows.push_back({1, c.name + ".A"});
    expect_selections(routine(c.name), rows);
    for (const std::uint64_t found : {rows[0].mask, rows[0].mask & ~std::uint64_t{2}}) {
      zorvac_test_detected = found;
      __zorva_cpu_feature_indicator = 0;
      EXPECT_EQ(taken_from(routine(c.name)), selected(rows, found));
    }
  }
}

// As only a program's own detection can.
TEST(StartupDispatch, NoticesADetectionThatLeavesNothing) {
  zorvac_test_detected = __zorva_cpu_feature_indicator = 0;
  const outcome o = run_in_child([] { __zorva_new_feature_proc_init(0, 2); });
  EXPECT_EQ(o, (outcome{"",
                        "\nUse of incompatible or internally inconsistent Zorva(R) libvrt "
                        "library\n\n",
                        1, 0}));
}

}  // namespace
