#ifndef ZORVAC_TESTS_SUPPORT_FAKE_PROCESSOR_H
#define ZORVAC_TESTS_SUPPORT_FAKE_PROCESSOR_H
// A processor made of a table of CPUID answers. Leaves that are not in the table answer zero.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <utility>

#include "core/processor.h"

namespace zorvac::test {

struct fake_processor {
  // By leaf and sub-leaf.
  std::map<std::pair<std::uint32_t, std::uint32_t>, cpuid_answer> answers = {};
  std::uint64_t xcr0 = 0;
  bool cpuid_exists = true;
  mutable int questions = 0;                        // whether there is CPUID
  mutable std::map<std::uint32_t, int> asked = {};  // how often, by leaf

  [[nodiscard]] bool has_cpuid() const {
    ++questions;
    return cpuid_exists;
  }
  [[nodiscard]] cpuid_answer cpuid(std::uint32_t leaf, std::uint32_t subleaf) const {
    ++asked[leaf];
    return answers.contains({leaf, subleaf}) ? answers.at({leaf, subleaf}) : cpuid_answer{};
  }
  [[nodiscard]] std::uint64_t xgetbv() const {
    EXPECT_TRUE(has(cpuid(1, 0).ecx, 1u << 27)) << "XGETBV would fault";
    return xcr0;
  }

  cpuid_answer& leaf(std::uint32_t number, std::uint32_t subleaf = 0) {
    return answers[{number, subleaf}];
  }
};

// Leaf 0 of a processor of a maker (12 characters).
inline cpuid_answer vendor_leaf(std::uint32_t maximum_leaf, const char* vendor) {
  std::uint32_t words[3];
  std::memcpy(words, vendor, sizeof words);
  return {maximum_leaf, words[0], words[2], words[1]};
}

inline constexpr const char *own_vendor = "GenuineZorva", *second_vendor = "AuthenticAMD",
                            *foreign_vendor = "OtherVendor!";

}  // namespace zorvac::test
#endif
