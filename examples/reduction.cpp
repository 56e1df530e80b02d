// A loop that counts into an array, as a compiler runs it on several threads. Each thread has a
// private copy of the array, which begins as the identity of the operator. At the end the copies
// are folded into the program's array one after the other.
//
//   for (int roll : rolls) { ++counts[roll]; latest[roll] = max(latest[roll], position); }
#include <zorvac/array.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <thread>

namespace {

// Codes of operators and of element types, as in zorvac/array.h.
constexpr std::uint32_t sum = 1, maximum = 4, int64_type = 8;
constexpr std::size_t sides = 6, threads = 4;
constexpr std::int64_t rolls = 6'000'000;

using per_side = std::array<std::int64_t, sides>;

struct private_copy {
  per_side counts, latest;

  private_copy() {
    __zorva_reduction_init_array(counts.data(), sides, sum, int64_type);
    __zorva_reduction_init_array(latest.data(), sides, maximum, int64_type);
  }

  // Counts every roll number first + k * threads. A roll is a hash of its number.
  void count(std::int64_t first) {
    for (std::int64_t i = first; i < rolls; i += threads) {
      const auto mixed = static_cast<std::uint64_t>(i) * 0x9e3779b97f4a7c15u;
      const std::size_t side = (mixed >> 32) % sides;
      ++counts[side];
      latest[side] = std::max(latest[side], i);
    }
  }
};

}  // namespace

int main() {
  std::array<private_copy, threads> copies;
  std::array<std::thread, threads> workers;
  for (std::size_t t = 0; t < threads; ++t)
    workers[t] = std::thread([&, t] { copies[t].count(static_cast<std::int64_t>(t)); });
  for (std::thread& worker : workers) worker.join();

  per_side counts{}, latest{};
  const auto fold = [](per_side& target, const per_side& partial, std::uint32_t operator_code) {
    __zorva_simd_reduction_final_array(target.data(), partial.data(), sides, 1, 0, operator_code,
                                       int64_type);
  };
  for (const private_copy& copy : copies) {
    fold(counts, copy.counts, sum);
    fold(latest, copy.latest, maximum);
  }

  std::int64_t all = 0;
  for (std::size_t side = 0; side < sides; ++side) {
    std::printf("side %zu: %lld times, last in roll %lld\n", side + 1,
                static_cast<long long>(counts[side]), static_cast<long long>(latest[side]));
    all += counts[side];
  }
  std::printf("%lld rolls by %zu threads\n", static_cast<long long>(all), threads);
  return all == rolls && *std::max_element(latest.begin(), latest.end()) == rolls - 1 ? 0 : 1;
}
