#ifndef ZORVAC_CPU_FAST_MEM_OPS_H
#define ZORVAC_CPU_FAST_MEM_OPS_H
// The values from which the block copy, move and fill routines take their thresholds, as a function
// of a processor's answers.
#include <cstdint>

#include "cpu/cache_detection.h"
#include "cpu/cache_values.h"

namespace zorvac::cpu {

// What the load-time initialiser computes for the block workers, in bytes.
struct cache_thresholds {
  std::int32_t largest_cache_size;
  std::int32_t largest_cache_size_half;
  std::int32_t data_cache_size;
  std::int32_t data_cache_size_half;
  std::int32_t largest_cachelinesize;
  std::int32_t mem_ops_method;  // 0 neither MMX nor SSE2, 1 MMX, 2 SSE2
};

constexpr std::int32_t kilobytes(std::uint32_t count) {
  return static_cast<std::int32_t>(count * 1024);
}

// Computes the load-time values from a computed table. The second vendor has a case of its own: its
// method deliberately stops at MMX, and only its level 2 cache is read.
template <processor Processor>
constexpr cache_thresholds derive_thresholds(const Processor& p, cache_table& table) {
  using namespace leaf1_edx;
  constexpr vendor_rule second_vendor{"AuthenticAMD"};
  cache_thresholds t{};
  if (table.vendor_accepted != 0) {
    if (table.maximum_leaf > 0) {
      const std::uint32_t edx = p.cpuid(1, 0).edx;
      t.mem_ops_method = has(edx, sse2) ? 2 : has(edx, mmx) ? 1 : 0;
    }
    cache_record largest{};
    for (const cache_record& level : table.levels)
      if (level.size_kb > largest.size_kb) largest = level;
    t.largest_cache_size = kilobytes(largest.size_kb);
    t.largest_cache_size_half = t.largest_cache_size / 2;
    t.data_cache_size = kilobytes(table.level(1).size_kb);
    t.data_cache_size_half = t.data_cache_size / 2;
    t.largest_cachelinesize =
        static_cast<std::int32_t>(largest.line_bytes * largest.lines_per_sector);
  } else if (p.has_cpuid() && second_vendor.accepts(p.cpuid(0, 0))) {
    t.mem_ops_method = has(p.cpuid(1, 0).edx, mmx) ? 1 : 0;
    if (p.cpuid(0x80000000, 0).eax >= 0x80000006) {
      const std::uint32_t level_2_kb = p.cpuid(0x80000006, 0).ecx >> 16;
      t.largest_cache_size = kilobytes(level_2_kb);
      t.largest_cache_size_half = static_cast<std::int32_t>((level_2_kb * 1024) >> 1);
    }
  }
  return t;
}

// What the library does when it is loaded: it fills the table, unless a query has already done so,
// and derives the load-time values.
template <processor Processor>
constexpr cache_thresholds thresholds_at_load(const Processor& hardware, const vendor_rule& vendor,
                                              cache_table& table) {
  const introduced p(hardware);
  if (table.computed == 0) detect_caches(p, vendor, table);
  return derive_thresholds(p, table);
}

}  // namespace zorvac::cpu

// Two load-time values that nothing in the library reads, and the table.
extern "C" {
extern std::int32_t __libvrt_largest_cachelinesize;
extern std::int32_t __libvrt_tmp;  // a copy of the method
extern zorvac::cpu::cache_table __libvrt_cache_tbl;
}
#endif
