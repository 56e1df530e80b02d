#ifndef ZORVAC_TESTS_SUPPORT_CAMPAIGN_H
#define ZORVAC_TESTS_SUPPORT_CAMPAIGN_H
// How many random cases to try: a number that suits every change, or far more for a deep run
// (scripts/test --deep), which sets ZORVAC_DEEP.
#include <cstdlib>

namespace zorvac::test {

inline long random_cases(long usual) {
  constexpr long deep_factor = 50;
  return std::getenv("ZORVAC_DEEP") != nullptr ? usual * deep_factor : usual;
}

}  // namespace zorvac::test
#endif
