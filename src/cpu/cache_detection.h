#ifndef ZORVAC_CPU_CACHE_DETECTION_H
#define ZORVAC_CPU_CACHE_DETECTION_H
// The table of a processor's caches, as a function of its answers.
#include <cstdint>
#include <initializer_list>

#include "core/processor.h"
#include "cpu/cache_descriptors.h"
#include "cpu/vendor.h"

namespace zorvac::cpu {

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
  const signature s{p.cpuid(1, 0).eax};
  const bool level_3_at_0x49 = s.family() == 15 && s.extended_family() >> 4 == 0 && s.model() == 6;
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

}  // namespace zorvac::cpu
#endif
