#ifndef ZORVAC_TESTS_SUPPORT_CAMPAIGN_H
#define ZORVAC_TESTS_SUPPORT_CAMPAIGN_H
// Campaigns of random cases. Every case has its own seed, which determines it completely. A failure
// prints the seed, and ZORVAC_SEED=<seed> before the test's command runs only that case.
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace zorvac::test {

// The number of cases to try: `usual`, or fifty times as many in a deep run (scripts/test --deep),
// which sets ZORVAC_DEEP.
inline long random_cases(long usual) {
  return std::getenv("ZORVAC_DEEP") == nullptr ? usual : 50 * usual;
}

// The first seed and the one after the last: from 0, or the one that ZORVAC_SEED asks for.
inline std::pair<std::uint64_t, std::uint64_t> seeds_of_cases(std::uint64_t count) {
  const char* const only = std::getenv("ZORVAC_SEED");
  if (only == nullptr) return {0, count};
  const std::uint64_t seed = std::strtoull(only, nullptr, 0);
  return {seed, seed + 1};
}

// The random numbers of one case. A start costs little, and the numbers of adjacent seeds differ.
// SplitMix64: Steele, Lea and Flood, Fast Splittable Pseudorandom Number Generators, 2014.
class case_random {
  std::uint64_t state_;

 public:
  explicit case_random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t operator()() {
    std::uint64_t word = state_ += 0x9e37'79b9'7f4a'7c15;
    word = (word ^ word >> 30) * 0xbf58'476d'1ce4'e5b9;
    word = (word ^ word >> 27) * 0x94d0'49bb'1331'11eb;
    return word ^ word >> 31;
  }
  std::size_t below(std::size_t limit) { return (*this)() % limit; }
  bool one_in(std::size_t n) { return below(n) == 0; }
};

}  // namespace zorvac::test
#endif
