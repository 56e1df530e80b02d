// A program that defines an exported name takes the library's place there, on every kind of hop:
// from a dispatcher to detection, from a dispatcher to a variant, from C++ code to detection. The
// replacements stand at the end of this file.
#include <gtest/gtest.h>

#include "support/child.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

namespace {

using namespace zorvac::test;

int detections;
std::uint64_t detected;  // what the replaced detection finds
int flags_of_variant;

class Interposition : public testing::Test {
 protected:
  void SetUp() override {
    detections = 0;
    flags_of_variant = -1;
    __zorva_cpu_feature_indicator = 0;
  }
};

TEST_F(Interposition, ReachesDetectionAndVariantOfADispatcher) {
  detected = 0x9d97ff;
  __zorva_new_proc_init_E(5);
  EXPECT_EQ(detections, 1);
  EXPECT_EQ(flags_of_variant, 5);
  __zorva_new_proc_init_E(6);  // known by now
  EXPECT_EQ(detections, 1);
  EXPECT_EQ(flags_of_variant, 6);
}

// A detection that gives no result, as only a replaced one can: each routine notices.
TEST_F(Interposition, FeatureMaskCheckNoticesThatDetectionLeftNothing) {
  detected = 0;
  const outcome o = run_in_child([] { __zorva_new_feature_proc_init(0, 2); });
  EXPECT_EQ(o, (outcome{"",
                        "\nUse of incompatible or internally inconsistent Zorva(R) libvrt library\n"
                        "\n",
                        1, 0}));
}

}  // namespace

extern "C" {
void __zorva_cpu_features_init() {
  ++detections;
  __zorva_cpu_feature_indicator = detected;
}
void replaced_variant(int flags) __asm__("__zorva_new_proc_init_E.V");
void replaced_variant(int flags) { flags_of_variant = flags; }
}
