#ifndef ZORVAC_TESTS_SUPPORT_HASH_H
#define ZORVAC_TESTS_SUPPORT_HASH_H
// A table of published data, too long to stand here a second time, is compared by its hash.
#include <cstdint>
#include <string_view>

namespace zorvac::test {

// FNV-1a, 64 bits.
constexpr std::uint64_t fnv_1a(std::string_view text) {
  std::uint64_t hash = 0xcbf2'9ce4'8422'2325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100'0000'01b3;
  return hash;
}

}  // namespace zorvac::test
#endif
