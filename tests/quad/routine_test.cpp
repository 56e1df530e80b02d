// Every routine against its oracle, and seen from outside: this program stands in for the routines
// that others call (hops.S), since what a program replaces must be replaced for the library, too.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "quads.h"
#include "support/campaign.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"
#include "zorvac/quad.h"

extern "C" {
struct hop {
  const char* name;
  void* routine;
};
extern hop __start_hops[], __stop_hops[];
const hop* hop_log[256];
unsigned char hop_count;

// Detection promises to change no argument register, so it may only do this much.
static int detections;
__attribute__((no_caller_saved_registers, target("general-regs-only"))) void detection() __asm__(
    "__zorva_cpu_features_init");
void detection() {
  ++detections;
  __zorva_cpu_feature_indicator = 0xff;
}
}

namespace zorvac::test {
namespace {

// Before anything can call one.
__attribute__((constructor(101))) void find_routines() {
  for (hop* h = __start_hops; h != __stop_hops; ++h) h->routine = dlsym(RTLD_NEXT, h->name);
}
std::string hops_of(call* entry) {
  const word in[4] = {one, one, one, one};
  unsigned char result[32];
  hop_count = 0;
  entry(result, reinterpret_cast<const unsigned char*>(in));
  std::string names;
  for (unsigned i = 0; i < hop_count; ++i) (names += hop_log[i]->name) += ' ';
  return names;
}

class Routine : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Quad, Routine, testing::ValuesIn(routines), name_of_row);

TEST_P(Routine, DoesAsItsOracleDoes) {
  const auto any = operands_for(GetParam().takes);
  const bool binary = GetParam().takes == kind::pair;  // a million cases, with the four modes
  for (long n = random_cases(binary ? 250'000 : 40'000); n > 0; --n) {
    const operands in = any();
    for (unsigned mode = 0; mode < 4; ++mode) {
      const std::string difference = check(GetParam(), mode, in);
      ASSERT_TRUE(difference.empty()) << difference;
    }
  }
}

// Calls go through what this program defines, to the body that the indicator's low byte chooses.
TEST_P(Routine, CallsWhatCanBeReplaced) {
  static const std::tuple<uint64_t, char, int> indicators[] = {
      {0xff, 'L', 0},    {0x1ff, 'L', 0}, {~uint64_t{0}, 'L', 0}, {0x7f, 'A', 0}, {1, 'A', 0},
      {0xff'fd, 'A', 0}, {0, 'L', 1},     {0xff'fe, 'L', 1}};
  const std::string itself = std::string("__") + GetParam().name + ' ',
                    hops = GetParam().hops != nullptr ? GetParam().hops : itself;
  for (const auto& [indicator, body, detected] : indicators)
    for (call* const entry : GetParam().entries) {
      __zorva_cpu_feature_indicator = indicator;
      detections = 0;
      std::string expected = hops;
      std::replace(expected.begin(), expected.end(), 'L', body);
      EXPECT_EQ(hops_of(entry), expected) << indicator;
      EXPECT_EQ(detections, hops.find('L') != std::string::npos ? detected : 0) << indicator;
    }
}

}  // namespace
}  // namespace zorvac::test
