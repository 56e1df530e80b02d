// A function compiled twice, and the choice between its two versions as a compiler emits it:
// compares a mask with the feature indicator, and runs detection first if it has not run yet.
#include <zorvac/cpu.h>

#include <cstdint>
#include <cstdio>
#include <numeric>
#include <vector>

namespace {

using bytes = std::vector<std::uint8_t>;

struct version {
  const char* name;
  std::uint64_t needs;  // of the processor
  std::uint64_t (*call)(const bytes&);
};

std::uint64_t sum_by_sse2(const bytes& values) {
  return std::accumulate(values.begin(), values.end(), std::uint64_t{0});
}
__attribute__((target("avx2"))) std::uint64_t sum_by_avx2(const bytes& values) {
  std::uint64_t sum = 0;
  for (const std::uint8_t value : values) sum += value;
  return sum;
}

// The best version first. Every processor has what the last one needs.
constexpr version versions[] = {
    {"AVX2", ZORVAC_FEATURE_GENERIC_X86 | ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_AVX2, sum_by_avx2},
    {"SSE2", ZORVAC_FEATURE_GENERIC_X86, sum_by_sse2},
};

const version& best() {
  if (__zorva_cpu_feature_indicator == 0) __zorva_cpu_features_init();
  for (const version& v : versions)
    if ((__zorva_cpu_feature_indicator & v.needs) == v.needs) return v;
  __zorva_cpu_dispatch_fail();
}

}  // namespace

int main() {
  const bytes values(1'000'000, 17);
  const version& chosen = best();
  const std::uint64_t sum = chosen.call(values);
  std::printf("sum %llu by the version for %s\n", static_cast<unsigned long long>(sum),
              chosen.name);
  return sum == 17 * values.size() ? 0 : 1;
}
