#ifndef ZORVAC_TESTS_SUPPORT_IDENTIFICATION_MODEL_H
#define ZORVAC_TESTS_SUPPORT_IDENTIFICATION_MODEL_H
// What the library should find out about a processor, worked out a second time and in another way
// from the same CPUID answers: every bit by its own predicate.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "support/fake_processor.h"

namespace zorvac::test::model {

enum condition { always, fxsr, ymm, mpx, zmm };
enum reg { ebx, ecx, edx };

struct feature_bit {
  int indicator_bit;
  std::uint32_t leaf;
  reg from;
  int cpuid_bit;
  condition needs = always;
};

// Indicator bit 19 needs both of its rows.
inline constexpr feature_bit feature_bits[] = {
    // clang-format off
    {1, 1, edx, 0}, {2, 1, edx, 15}, {3, 1, edx, 23}, {4, 1, edx, 24}, {5, 1, edx, 25, fxsr},
    {6, 1, edx, 26, fxsr}, {7, 1, ecx, 0, fxsr}, {8, 1, ecx, 9, fxsr}, {9, 1, ecx, 19, fxsr},
    {10, 1, ecx, 20, fxsr}, {11, 1, ecx, 22, fxsr}, {12, 1, ecx, 23, fxsr}, {13, 1, ecx, 1, fxsr},
    {14, 1, ecx, 25, fxsr}, {15, 1, ecx, 29, ymm}, {16, 1, ecx, 28, ymm}, {17, 1, ecx, 30},
    {18, 1, ecx, 12, ymm}, {19, 7, ebx, 3}, {19, 7, ebx, 8}, {20, 0x80000001, ecx, 5},
    {21, 7, ebx, 4}, {22, 7, ebx, 11}, {23, 7, ebx, 5, ymm}, {24, 7, ebx, 17, zmm},
    {27, 7, ebx, 16, zmm}, {28, 7, ebx, 19}, {29, 7, ebx, 18}, {30, 7, ebx, 21, zmm},
    {32, 7, ebx, 27, zmm}, {33, 7, ebx, 26, zmm}, {34, 7, ebx, 28, zmm}, {35, 7, ebx, 29, fxsr},
    {36, 7, ebx, 14, mpx}, {37, 7, ebx, 30, zmm}, {38, 7, ebx, 31, zmm}, {39, 7, ecx, 1, zmm},
    // clang-format on
};

inline bool reports(const fake_processor& p, std::uint32_t leaf, reg from, int bit) {
  const cpuid_answer a = p.cpuid(leaf, 0);
  return ((from == ebx ? a.ebx : from == ecx ? a.ecx : a.edx) >> bit & 1) != 0;
}

inline std::uint32_t full_model(std::uint32_t signature) {
  return (signature >> 16) % 16 * 16 + (signature >> 4) % 16;
}

// The feature word of a processor that has leaf 1, whatever its maker.
inline std::uint64_t feature_word(const fake_processor& p) {
  const bool has_ymm = reports(p, 1, ecx, 27) && (p.xcr0 & 0x6) == 0x6;
  const bool met[] = {true, reports(p, 1, edx, 24), has_ymm, has_ymm && (p.xcr0 & 0x18) == 0x18,
                      has_ymm && (p.xcr0 & 0xe0) == 0xe0};  // by condition
  const std::uint32_t model = full_model(p.cpuid(1, 0).eax);
  std::uint64_t word = 1, missing = 0;
  if (model == 0x1c || model == 0x26 || model == 0x27) word |= std::uint64_t{1} << 31;
  for (const feature_bit& f : feature_bits)
    (reports(p, f.leaf, f.from, f.cpuid_bit) && met[f.needs] ? word : missing) |=
        std::uint64_t{1} << f.indicator_bit;
  return word & ~missing;
}

// The class of a processor of the accepted vendor: the last line of the list that applies.
inline std::uint32_t processor_class(const fake_processor& p) {
  const auto c1 = [&](int bit) { return reports(p, 1, ecx, bit); };
  const auto b7 = [&](int bit) { return reports(p, 7, ebx, bit); };
  const std::uint32_t family = p.cpuid(1, 0).eax >> 8 & 0xf;
  const bool six = family == 6;
  const bool avx = six && c1(27) && (p.xcr0 & 6) == 6 && c1(28);
  const bool zmm_state = avx && (p.xcr0 & 0xe0) == 0xe0;
  const std::vector<std::pair<bool, std::uint32_t>> ladder = {
      {true, 0x1},
      {(six || family == 15) && c1(0), 0x800},
      {six && c1(9), 0x1000},
      {six && c1(22), 0x4000},
      {six && c1(19), 0x2000},
      {six && c1(20) && c1(23), 0x8000},
      {six && c1(1) && c1(25), 0x10000},
      {avx, 0x20000},
      {avx && c1(29), 0x40000},
      {avx && b7(5) && b7(3) && b7(8) && reports(p, 0x80000001, ecx, 5) && c1(12) && b7(4) &&
           b7(11),
       0x200000},
      {avx && b7(18) && b7(19), 0x800000},
      {zmm_state && b7(16) && b7(26) && b7(27) && b7(28), 0x2000000},
      {zmm_state && b7(16) && b7(17) && b7(30) && b7(31), 0x4000000},
  };
  return std::find_if(ladder.rbegin(), ladder.rend(), [](const auto& step) { return step.first; })
      ->second;
}

}  // namespace zorvac::test::model
#endif
