#ifndef ZORVAC_CPU_VENDOR_H
#define ZORVAC_CPU_VENDOR_H
// The vendor rule: which maker's processors get the fast variants. It is chosen when the library is
// built, as CPUID's vendor string or as "any". All code that looks at the vendor asks this rule.
#include <cstdint>

#include "core/processor.h"

namespace zorvac::cpu {

class vendor_rule {
 public:
  // `text` is "any" or a vendor string of 12 characters; anything else does not compile.
  consteval explicit vendor_rule(const char* text)
      : any_(text[0] == 'a' && text[1] == 'n' && text[2] == 'y' && text[3] == '\0') {
    if (any_) return;
    ebx_ = four_characters(text);
    edx_ = four_characters(text + 4);
    ecx_ = four_characters(text + 8);
    if (text[12] != '\0') a_vendor_string_has_12_characters();
  }

  [[gnu::always_inline]] constexpr bool accepts(const cpuid_answer& leaf_0) const {
    return any_ || (leaf_0.ebx == ebx_ && leaf_0.edx == edx_ && leaf_0.ecx == ecx_);
  }
  [[gnu::always_inline]] constexpr bool accepts_any() const { return any_; }

 private:
  static consteval std::uint32_t four_characters(const char* text) {
    std::uint32_t word = 0;
    for (int i = 3; i >= 0; --i) {
      if (text[i] == '\0') a_vendor_string_has_12_characters();
      word = word << 8 | static_cast<unsigned char>(text[i]);
    }
    return word;
  }

  // Not constexpr: a call of it makes the compiler reject the string.
  static void a_vendor_string_has_12_characters();

  bool any_;
  std::uint32_t ebx_ = 0, edx_ = 0, ecx_ = 0;
};

// The rule that this library was built with.
inline constexpr vendor_rule accepted_vendor{ZORVAC_CPU_VENDOR};

}  // namespace zorvac::cpu
#endif
