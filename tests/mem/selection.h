#ifndef ZORVAC_TESTS_MEM_SELECTION_H
#define ZORVAC_TESTS_MEM_SELECTION_H
// Which variant each indicator selects, and where the variant leads: the contract in literal masks,
// kept apart from the library's named levels.
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "zorvac/cpu.h"
#include "zorvac/mem.h"

namespace zorvac::test {

struct selection {
  std::uint64_t mask;
  const char* variant;
  const char* worker;
};

struct dispatcher {
  const char* name;
  void (*entry)();
  std::vector<selection> rows;  // the most demanding first; the last needs bit 0 alone
};

inline std::vector<dispatcher> dispatchers() {
  const auto entry = [](auto* f) { return reinterpret_cast<void (*)()>(f); };
  return {{"Memcpy",
           entry(_zorva_fast_memcpy),
           {{0x7389d97ff, "_zorva_fast_memcpy.Z", "__zorva_vpx_avx512f_memcpy"},
            {0x9d97ff, "_zorva_fast_memcpy.V", "__zorva_avx_rep_memcpy"},
            {0x17ff, "_zorva_fast_memcpy.P", "__zorva_ssse3_rep_memcpy"},
            {0x1ff, "_zorva_fast_memcpy.M", "__zorva_ssse3_memcpy"},
            {0x7f, "_zorva_fast_memcpy.J", "__zorva_new_memcpy"},
            {0x1, "_zorva_fast_memcpy.A", "memcpy"}}},
          {"Memmove",
           entry(_zorva_fast_memmove),
           {{0x17ff, "_zorva_fast_memmove.P", "__zorva_ssse3_rep_memmove"},
            {0x1ff, "_zorva_fast_memmove.M", "__zorva_ssse3_memmove"},
            {0x1, "_zorva_fast_memmove.A", "memmove"}}},
          {"Memset",
           entry(_zorva_fast_memset),
           {{0x7389d97ff, "_zorva_fast_memset.Z", "__zorva_vpx_avx512f_memset"},
            {0x9d97ff, "_zorva_fast_memset.V", "__zorva_avx_rep_memset"},
            {0x7f, "_zorva_fast_memset.J", "__zorva_new_memset"},
            {0x1, "_zorva_fast_memset.A", "memset"}}}};
}
inline std::ostream& operator<<(std::ostream& out, const dispatcher& d) { return out << d.name; }

inline const selection& selected(const dispatcher& d, std::uint64_t indicator) {
  for (const selection& row : d.rows)
    if ((indicator & row.mask) == row.mask) return row;
  return d.rows.back();
}

// Every mask, every mask without any one of its bits except bit 0, and each with all other bits
// set or all that the masks do not ask for.
inline std::vector<std::uint64_t> indicators() {
  constexpr std::uint64_t masks[] = {0x7389d97ff, 0x9d97ff, 0x17ff, 0x1ff, 0x7f, 0x1};
  std::vector<std::uint64_t> all;
  for (const std::uint64_t mask : masks) {
    all.insert(all.end(), {mask, mask | ~masks[0]});
    for (int bit = 1; bit < 64; ++bit) {
      const std::uint64_t one = std::uint64_t{1} << bit;
      all.push_back(mask ^ one);
      all.push_back(~one);
    }
  }
  return all;
}

inline const auto name_of_dispatcher = [](const auto& row) { return std::string(row.param.name); };

}  // namespace zorvac::test
#endif
