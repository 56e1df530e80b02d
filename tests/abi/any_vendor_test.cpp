// The flavour that accepts every vendor, on the processor at hand: the vendor-checked word is the
// vendor-independent one, and caches are found where the system can tell what they are.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/registers.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

namespace {

TEST(AnyVendor, GetsTheWholeFeatureWord) {
  __zorva_cpu_features_init_x();
  EXPECT_NE(__zorva_cpu_feature_indicator_x, 1u);
  __zorva_cpu_features_init();
  EXPECT_EQ(__zorva_cpu_feature_indicator, __zorva_cpu_feature_indicator_x);
  __zorva_new_proc_init_B(0);  // returns: every x86-64 processor has SSE2
}

TEST(AnyVendor, CachesAgreeWithTheSystem) {
  const std::pair<std::uint32_t, int> levels[] = {{1, _SC_LEVEL1_DCACHE_SIZE},
                                                  {2, _SC_LEVEL2_CACHE_SIZE}};
  for (const auto& [level, name] : levels) {
    const long bytes = sysconf(name);
    if (bytes <= 0) GTEST_SKIP() << "the system does not know its caches";
    EXPECT_EQ(__cacheSize(level), bytes / 1024) << level;
  }
}

}  // namespace
