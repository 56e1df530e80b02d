#ifndef ZORVAC_CPU_FAST_MEM_OPS_H
#define ZORVAC_CPU_FAST_MEM_OPS_H
// Cache sizes as a function of a processor's answers, and the values from which the block copy,
// move and fill routines take their thresholds.
#include <cstdint>
#include <initializer_list>

#include "core/processor.h"
#include "core/vendor.h"
#include "cpu/cache_values.h"

namespace zorvac::cpu {

struct cache_record {
  std::uint32_t size_kb;
  std::uint32_t line_bytes;
  std::uint32_t lines_per_sector;
  std::uint32_t ways;
};

// Four records of four words. The first holds the state of the table; the others are the cache
// levels. All fields of an unknown level are zero.
struct cache_table {
  std::uint32_t vendor_accepted;
  std::uint32_t maximum_leaf;  // only for an accepted vendor
  std::uint32_t unused;
  std::uint32_t computed;
  cache_record levels[3];

  [[gnu::always_inline]] constexpr cache_record& level(std::uint32_t number) {
    return levels[number - 1];
  }
};
static_assert(sizeof(cache_table) == 4 * sizeof(cache_record));

// What the load-time initialiser computes for the block workers, in bytes.
struct cache_thresholds {
  std::int32_t largest_cache_size;
  std::int32_t largest_cache_size_half;
  std::int32_t data_cache_size;
  std::int32_t data_cache_size_half;
  std::int32_t largest_cachelinesize;
  std::int32_t mem_ops_method;  // 0 neither MMX nor SSE2, 1 MMX, 2 SSE2
};

// The cache that a CPUID leaf 2 descriptor byte stands for, in two words. The first has the level
// in bits 0 to 2 (0: the descriptor names no data or unified cache), the line bytes in bits 3 to
// 14, the lines per sector in bits 15 to 21 and the ways in bits 22 to 31. The second is the size
// in KB.
struct packed_descriptor {
  std::uint32_t geometry, size_kb;

  [[gnu::always_inline]] constexpr std::uint32_t level() const { return geometry & 0x7; }
  [[gnu::always_inline]] constexpr cache_record record() const {
    return {size_kb, geometry >> 3 & 0xfff, geometry >> 15 & 0x7f, geometry >> 22};
  }
};

struct packed_descriptors {
  packed_descriptor entry[256];
};

// Source: the descriptor encodings in the processor makers' description of CPUID leaf 2. For 0x4c
// the table has 12228 KB instead of the published 12288. That value is part of the interface.
consteval packed_descriptors make_descriptor_table() {
  struct descriptor {
    std::uint8_t code;
    std::uint32_t level, size_kb, ways, line_bytes, lines_per_sector;
  };
  // clang-format off
  constexpr descriptor known[] = {
      {0x0a, 1, 8, 2, 32, 1},       {0x0c, 1, 16, 4, 32, 1},      {0x0d, 1, 16, 4, 64, 1},
      {0x0e, 1, 24, 6, 64, 1},      {0x10, 1, 16, 4, 32, 1},      {0x1a, 2, 96, 6, 64, 1},
      {0x1d, 2, 128, 2, 64, 1},     {0x21, 2, 256, 8, 64, 1},     {0x22, 3, 512, 4, 64, 2},
      {0x23, 3, 1024, 8, 64, 2},    {0x24, 2, 1024, 16, 64, 1},   {0x25, 3, 2048, 8, 64, 2},
      {0x29, 3, 4096, 8, 64, 2},    {0x2c, 1, 32, 8, 64, 1},      {0x39, 2, 128, 4, 64, 1},
      {0x3a, 2, 192, 6, 64, 1},     {0x3b, 2, 128, 2, 64, 1},     {0x3c, 2, 256, 4, 64, 1},
      {0x3d, 2, 384, 6, 64, 1},     {0x3e, 2, 512, 4, 64, 1},     {0x3f, 2, 256, 4, 64, 1},
      {0x41, 2, 128, 4, 32, 1},     {0x42, 2, 256, 4, 32, 1},     {0x43, 2, 512, 4, 32, 1},
      {0x44, 2, 1024, 4, 32, 1},    {0x45, 2, 2048, 4, 32, 1},    {0x46, 3, 4096, 4, 64, 1},
      {0x47, 3, 8192, 8, 64, 1},    {0x48, 2, 3072, 12, 64, 1},   {0x49, 2, 4096, 16, 64, 1},
      {0x4a, 3, 6144, 12, 64, 1},   {0x4b, 3, 8192, 16, 64, 1},   {0x4c, 3, 12228, 12, 64, 1},
      {0x4d, 3, 16384, 16, 64, 1},  {0x4e, 2, 6144, 24, 64, 1},   {0x60, 1, 16, 8, 64, 1},
      {0x62, 1, 32, 8, 64, 1},      {0x66, 1, 8, 4, 64, 2},       {0x67, 1, 16, 4, 64, 2},
      {0x68, 1, 32, 4, 64, 2},      {0x69, 1, 64, 4, 64, 2},      {0x78, 2, 1024, 4, 64, 1},
      {0x79, 2, 128, 8, 64, 2},     {0x7a, 2, 256, 8, 64, 2},     {0x7b, 2, 512, 8, 64, 2},
      {0x7c, 2, 1024, 8, 64, 2},    {0x7d, 2, 2048, 8, 64, 2},    {0x7e, 2, 256, 12, 128, 1},
      {0x7f, 2, 512, 2, 64, 1},     {0x80, 2, 512, 8, 64, 1},     {0x81, 2, 128, 8, 32, 1},
      {0x82, 2, 256, 8, 32, 1},     {0x83, 2, 512, 8, 32, 1},     {0x84, 2, 1024, 8, 32, 1},
      {0x85, 2, 2048, 8, 32, 1},    {0x86, 2, 512, 4, 64, 1},     {0x87, 2, 1024, 8, 64, 1},
      {0x88, 3, 2048, 4, 64, 1},    {0x89, 3, 4096, 4, 64, 1},    {0x8a, 3, 8192, 4, 64, 1},
      {0x8d, 3, 3072, 12, 128, 1},  {0xd0, 3, 512, 4, 64, 1},     {0xd1, 3, 1024, 4, 64, 1},
      {0xd2, 3, 2048, 4, 64, 1},    {0xd6, 3, 1024, 8, 64, 1},    {0xd7, 3, 2048, 8, 64, 1},
      {0xd8, 3, 4096, 8, 64, 1},    {0xdc, 3, 2048, 12, 64, 1},   {0xdd, 3, 4096, 12, 64, 1},
      {0xde, 3, 8192, 12, 64, 1},   {0xe2, 3, 2048, 16, 64, 1},   {0xe3, 3, 4096, 16, 64, 1},
      {0xe4, 3, 8192, 16, 64, 1},   {0xea, 3, 12288, 24, 64, 1},  {0xeb, 3, 18432, 24, 64, 1},
      {0xec, 3, 24576, 24, 64, 1},
  };
  // clang-format on
  packed_descriptors table{};
  for (const descriptor& d : known)
    table.entry[d.code] = {d.level | d.line_bytes << 3 | d.lines_per_sector << 15 | d.ways << 22,
                           d.size_kb};
  return table;
}
inline constexpr packed_descriptors cpuid2_cache_tbl = make_descriptor_table();

// Whether leaf 1's signature is family 15, model 6. On those, descriptor 0x49 is a level 3 cache.
constexpr bool is_family_15_model_6(std::uint32_t signature) {
  const bool family_15 = (signature >> 8 & 0xf) == 15 && (signature >> 24 & 0xf) == 0;
  const std::uint32_t model = (signature >> 16 & 0xf) << 4 | (signature >> 4 & 0xf);
  return family_15 && model == 6;
}

// Reads the caches of a leaf that describes one cache per sub-leaf: at most 8 sub-leaves, up to the
// first of type 0. A later cache of the same level replaces an earlier one. Levels without a
// record, which are 0 and those above 3, are skipped. Returns whether the leaf lists any cache.
template <processor Processor>
constexpr bool read_deterministic_caches(const Processor& p, std::uint32_t leaf,
                                         cache_table& table) {
  bool any = false;
  for (std::uint32_t subleaf = 0; subleaf < 8; ++subleaf) {
    const cpuid_answer a = p.cpuid(leaf, subleaf);
    if ((a.eax & 0x1f) == 0) break;
    any = true;
    if ((a.eax & 0x1d) != 1) continue;  // neither data (1) nor unified (3)
    const std::uint32_t level = a.eax >> 5 & 0x7;
    if (level < 1 || level > 3) continue;
    const std::uint32_t line_bytes = (a.ebx & 0xfff) + 1;
    const std::uint32_t partitions = (a.ebx >> 12 & 0x3ff) + 1;
    const std::uint32_t ways = (a.ebx >> 22) + 1;
    const std::uint32_t bytes = ways * partitions * line_bytes * (a.ecx + 1);
    table.level(level) = {bytes >> 10, line_bytes, partitions, ways};
  }
  return any;
}

// Reads the caches from the descriptor bytes of leaf 2. The lowest byte of the first answer says
// how often the leaf is to be executed (at most 4 times here). That byte is looked up like a
// descriptor, too; the counts 1 to 4 are descriptors that name no cache.
template <processor Processor>
constexpr void read_cache_descriptors(const Processor& p, cache_table& table) {
  constexpr std::uint32_t most_runs = 4;
  const bool level_3_at_0x49 = is_family_15_model_6(p.cpuid(1, 0).eax);
  cpuid_answer answer = p.cpuid(2, 0);
  const std::uint32_t wanted = answer.eax & 0xff;
  const std::uint32_t runs = wanted < most_runs ? wanted : most_runs;
  for (std::uint32_t run = 0; run < runs; ++run) {
    if (run > 0) answer = p.cpuid(2, 0);
    for (const std::uint32_t word : {answer.eax, answer.ebx, answer.ecx, answer.edx}) {
      if (word >> 31 != 0) continue;  // this register carries no descriptors
      for (int shift = 0; shift < 32; shift += 8) {
        const std::uint32_t code = word >> shift & 0xff;
        if (code == 0xff) {  // "see leaf 4", which has listed no level 1 cache
          for (cache_record& record : table.levels) record = {};
          return;
        }
        const packed_descriptor& descriptor = cpuid2_cache_tbl.entry[code];
        std::uint32_t level = descriptor.level();
        if (level == 0) continue;
        if (code == 0x49 && level_3_at_0x49) level = 3;
        table.level(level) = descriptor.record();
      }
    }
  }
}

// Finds the caches of an accepted vendor's processor. If every vendor is accepted and leaf 4 lists
// nothing, leaf 0x8000001D is read too, which has the layout of leaf 4.
template <processor Processor>
constexpr void find_caches(const Processor& p, const vendor_rule& vendor, cache_table& table) {
  if (!p.has_cpuid()) return;
  const cpuid_answer leaf0 = p.cpuid(0, 0);
  if (!vendor.accepts(leaf0)) return;
  table.vendor_accepted = 1;
  table.maximum_leaf = leaf0.eax;

  const bool listed = leaf0.eax >= 4 && read_deterministic_caches(p, 4, table);
  if (!listed && vendor.accepts_any() && p.cpuid(0x80000000, 0).eax >= 0x8000001d)
    read_deterministic_caches(p, 0x8000001d, table);
  if (table.level(1).size_kb == 0 && leaf0.eax >= 2) read_cache_descriptors(p, table);
}

// A processor that remembers whether it has CPUID, and its leaf 0. Both steps at load time need
// these answers, and on a virtual machine each CPUID instruction is a call of the hypervisor.
template <processor Processor>
class introduced {
 public:
  constexpr explicit introduced(const Processor& p)
      : p_(p), has_cpuid_(p.has_cpuid()), leaf0_(has_cpuid_ ? p.cpuid(0, 0) : cpuid_answer{}) {}

  [[nodiscard]] constexpr bool has_cpuid() const { return has_cpuid_; }
  [[nodiscard]] constexpr cpuid_answer cpuid(std::uint32_t leaf, std::uint32_t subleaf) const {
    return leaf == 0 ? leaf0_ : p_.cpuid(leaf, subleaf);
  }
  [[nodiscard]] constexpr std::uint64_t xgetbv() const { return p_.xgetbv(); }

 private:
  const Processor& p_;
  bool has_cpuid_;
  cpuid_answer leaf0_;
};

// Fills the table and then marks it computed, whatever was found.
template <processor Processor>
constexpr void detect_caches(const Processor& p, const vendor_rule& vendor, cache_table& table) {
  find_caches(p, vendor, table);
  table.computed = 1;
}

constexpr std::int32_t kilobytes(std::uint32_t count) {
  return static_cast<std::int32_t>(count * 1024);
}

// Computes the load-time values from a computed table. The second vendor has a case of its own: its
// method deliberately stops at MMX, and only its level 2 cache is read.
template <processor Processor>
constexpr cache_thresholds derive_thresholds(const Processor& p, cache_table& table) {
  constexpr std::uint32_t mmx = 1 << 23, sse2 = 1 << 26;  // leaf 1 EDX
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
