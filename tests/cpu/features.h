#ifndef ZORVAC_TESTS_CPU_FEATURES_H
#define ZORVAC_TESTS_CPU_FEATURES_H
// The feature indicator as published: the name of each bit and what it requires.
#include <algorithm>
#include <cstdint>
#include <string_view>

namespace zorvac::test {

// The source of a feature's bit: nothing, detection itself, the model, or a register of CPUID leaf
// 1, 7 or 0x80000001; and what else must hold.
enum reporter { never, ever, in_order_model, edx1, ecx1, ebx7, ecx7, ecx_extended };
enum condition { always, fxsr, ymm_state, mpx_state, zmm_state };

struct feature {
  std::string_view name;
  int indicator_bit;
  reporter from;
  int reported_bit = 0;
  condition needs = always;
};
inline constexpr feature features[] = {
    // clang-format off
    {"GENERIC_X86", 0, ever}, {"X87", 1, edx1, 0}, {"CMOV", 2, edx1, 15}, {"MMX", 3, edx1, 23},
    {"FXSAVE", 4, edx1, 24}, {"SSE", 5, edx1, 25, fxsr}, {"SSE2", 6, edx1, 26, fxsr},
    {"SSE3", 7, ecx1, 0, fxsr}, {"SSSE3", 8, ecx1, 9, fxsr}, {"SSE4_1", 9, ecx1, 19, fxsr},
    {"SSE4_2", 10, ecx1, 20, fxsr}, {"MOVBE", 11, ecx1, 22, fxsr}, {"POPCNT", 12, ecx1, 23, fxsr},
    {"PCLMULQDQ", 13, ecx1, 1, fxsr}, {"AES", 14, ecx1, 25, fxsr},
    {"F16C", 15, ecx1, 29, ymm_state}, {"AVX", 16, ecx1, 28, ymm_state},
    {"RDRND", 17, ecx1, 30}, {"FMA", 18, ecx1, 12, ymm_state},
    {"BMI", 19, ebx7, 3}, {"BMI", 19, ebx7, 8}, {"LZCNT", 20, ecx_extended, 5},
    {"HLE", 21, ebx7, 4}, {"RTM", 22, ebx7, 11}, {"AVX2", 23, ebx7, 5, ymm_state},
    {"AVX512DQ", 24, ebx7, 17, zmm_state}, {"", 25, never}, {"QRTNI", 26, never},
    {"AVX512F", 27, ebx7, 16, zmm_state}, {"ADX", 28, ebx7, 19}, {"RDSEED", 29, ebx7, 18},
    {"AVX512IFMA52", 30, ebx7, 21, zmm_state}, {"FULLY INORDER PROCESSOR", 31, in_order_model},
    {"AVX512ER", 32, ebx7, 27, zmm_state}, {"AVX512PF", 33, ebx7, 26, zmm_state},
    {"AVX512CD", 34, ebx7, 28, zmm_state}, {"SHA", 35, ebx7, 29, fxsr},
    {"MPX", 36, ebx7, 14, mpx_state}, {"AVX512BW", 37, ebx7, 30, zmm_state},
    {"AVX512VL", 38, ebx7, 31, zmm_state}, {"AVX512VBMI", 39, ecx7, 1, zmm_state}};
// clang-format on

// The mask of features by name, as in "SSE4_2, POPCNT". An unknown name does not compile.
consteval std::uint64_t mask_of(std::string_view names) {
  std::uint64_t mask = 0;
  while (!names.empty()) {
    const std::size_t end = std::min(names.find(", "), names.size());
    const auto* const row = std::ranges::find(features, names.substr(0, end), &feature::name);
    mask |= std::uint64_t{1} << row->indicator_bit;
    names.remove_prefix(std::min(end + 2, names.size()));
  }
  return mask;
}

}  // namespace zorvac::test
#endif
