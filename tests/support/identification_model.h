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
  std::vector<int> cpuid_bits;
  condition needs;
};

inline const std::vector<feature_bit>& feature_bits() {
  static const std::vector<feature_bit> bits = {
      {1, 1, edx, {0}, always},     {2, 1, edx, {15}, always},
      {3, 1, edx, {23}, always},    {4, 1, edx, {24}, always},
      {5, 1, edx, {25}, fxsr},      {6, 1, edx, {26}, fxsr},
      {7, 1, ecx, {0}, fxsr},       {8, 1, ecx, {9}, fxsr},
      {9, 1, ecx, {19}, fxsr},      {10, 1, ecx, {20}, fxsr},
      {11, 1, ecx, {22}, fxsr},     {12, 1, ecx, {23}, fxsr},
      {13, 1, ecx, {1}, fxsr},      {14, 1, ecx, {25}, fxsr},
      {15, 1, ecx, {29}, ymm},      {16, 1, ecx, {28}, ymm},
      {17, 1, ecx, {30}, always},   {18, 1, ecx, {12}, ymm},
      {19, 7, ebx, {3, 8}, always}, {20, 0x80000001, ecx, {5}, always},
      {21, 7, ebx, {4}, always},    {22, 7, ebx, {11}, always},
      {23, 7, ebx, {5}, ymm},       {24, 7, ebx, {17}, zmm},
      {27, 7, ebx, {16}, zmm},      {28, 7, ebx, {19}, always},
      {29, 7, ebx, {18}, always},   {30, 7, ebx, {21}, zmm},
      {32, 7, ebx, {27}, zmm},      {33, 7, ebx, {26}, zmm},
      {34, 7, ebx, {28}, zmm},      {35, 7, ebx, {29}, fxsr},
      {36, 7, ebx, {14}, mpx},      {37, 7, ebx, {30}, zmm},
      {38, 7, ebx, {31}, zmm},      {39, 7, ecx, {1}, zmm},
  };
  return bits;
}

inline std::uint32_t register_of(const cpuid_answer& a, reg which) {
  return which == ebx ? a.ebx : which == ecx ? a.ecx : a.edx;
}
inline bool reports(const fake_processor& p, std::uint32_t leaf, reg from, int bit) {
  return (register_of(p.cpuid(leaf, 0), from) >> bit & 1) != 0;
}

inline bool holds(const fake_processor& p, condition c) {
  const bool ymm_enabled = reports(p, 1, ecx, 27) && (p.xcr0 & 0x6) == 0x6;
  switch (c) {
    case always:
      return true;
    case fxsr:
      return reports(p, 1, edx, 24);
    case ymm:
      return ymm_enabled;
    case mpx:
      return ymm_enabled && (p.xcr0 & 0x18) == 0x18;
    case zmm:
      return ymm_enabled && (p.xcr0 & 0xe0) == 0xe0;
  }
  return false;
}

inline std::uint32_t full_model(std::uint32_t signature) {
  return (signature >> 16) % 16 * 16 + (signature >> 4) % 16;
}

// The feature word of a processor that has leaf 1, whatever its maker.
inline std::uint64_t feature_word(const fake_processor& p) {
  std::uint64_t word = 1;
  for (const feature_bit& f : feature_bits()) {
    const bool all = std::all_of(f.cpuid_bits.begin(), f.cpuid_bits.end(),
                                 [&](int bit) { return reports(p, f.leaf, f.from, bit); });
    if (all && holds(p, f.needs)) word |= std::uint64_t{1} << f.indicator_bit;
  }
  const std::uint32_t model = full_model(p.cpuid(1, 0).eax);
  if (model == 0x1c || model == 0x26 || model == 0x27) word |= std::uint64_t{1} << 31;
  return word;
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
