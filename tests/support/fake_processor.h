#ifndef ZORVAC_TESTS_SUPPORT_FAKE_PROCESSOR_H
#define ZORVAC_TESTS_SUPPORT_FAKE_PROCESSOR_H
// A processor made of a table of CPUID answers. Leaves that are not in the table answer zero.
#include <cstdint>
#include <cstring>
#include <map>
#include <utility>

#include "core/processor.h"

namespace zorvac::test {

using cpuid_answers = std::map<std::pair<std::uint32_t, std::uint32_t>, cpuid_answer>;

struct fake_processor {
  cpuid_answers answers = {};  // by leaf, sub-leaf
  std::uint64_t xcr0 = 0;
  bool cpuid_exists = true;
  mutable int xgetbv_calls = 0;

  [[nodiscard]] bool has_cpuid() const { return cpuid_exists; }
  [[nodiscard]] cpuid_answer cpuid(std::uint32_t leaf, std::uint32_t subleaf) const {
    return answers.contains({leaf, subleaf}) ? answers.at({leaf, subleaf}) : cpuid_answer{};
  }
  [[nodiscard]] std::uint64_t xgetbv() const {
    ++xgetbv_calls;
    return xcr0;
  }

  cpuid_answer& leaf(std::uint32_t number, std::uint32_t subleaf = 0) {
    return answers[{number, subleaf}];
  }
};

// Leaf 0 of a processor of a maker (12 characters).
inline cpuid_answer vendor_leaf(std::uint32_t maximum_leaf, const char* vendor) {
  cpuid_answer a{.eax = maximum_leaf, .ebx = 0, .ecx = 0, .edx = 0};
  std::memcpy(&a.ebx, vendor, 4);
  std::memcpy(&a.edx, vendor + 4, 4);
  std::memcpy(&a.ecx, vendor + 8, 4);
  return a;
}

inline constexpr const char* own_vendor = "GenuineZorva";
inline constexpr const char* second_vendor = "AuthenticAMD";
inline constexpr const char* foreign_vendor = "OtherVendor!";

}  // namespace zorvac::test
#endif
