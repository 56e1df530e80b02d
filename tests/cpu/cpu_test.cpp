// Tests what is detected of a processor. Features and classes are compared with second tables of
// what each bit and each class requires, on random processors. Caches, and what is derived from
// them, have one row for each processor. Then the exported routines run on this machine's
// processor.
#include <gtest/gtest.h>

#include <bit>
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <random>

#include "cpu/cpu_disp.h"
#include "cpu/cpu_feature_disp.h"
#include "cpu/fast_mem_ops.h"
#include "cpu/features.h"
#include "support/bytes.h"
#include "support/campaign.h"
#include "support/child.h"
#include "support/registers.h"

void load_time_initialiser() asm("__sti__$E");  // the library's constructor

namespace {

using namespace zorvac;
using namespace zorvac::test;

using cpu::vendor_rule;
constexpr vendor_rule own{"GenuineZorva"}, any{"any"};

// ---- Processors ---------------------------------------------------------------------------------

using answer = std::array<std::uint32_t, 4>;
enum { eax, ebx, ecx, edx };

// A processor that is a table of CPUID answers. What has no answer gives zero. Leaf 2 gives its
// next answer at each execution.
struct fake_processor {
  std::map<std::uint32_t, std::vector<answer>> leaves = {};  // by sub-leaf
  std::uint64_t xcr0 = 0;
  bool cpuid_exists = true;
  mutable std::map<std::uint32_t, int> asked = {};  // the number of queries of each leaf

  [[nodiscard]] bool has_cpuid() const { return cpuid_exists; }
  [[nodiscard]] cpuid_answer cpuid(std::uint32_t leaf, std::uint32_t subleaf) const {
    const auto times = static_cast<std::uint32_t>(asked[leaf]++);
    if (leaf == 2) subleaf = times;
    const auto found = leaves.find(leaf);
    const bool answers = found != leaves.end() && subleaf < found->second.size();
    return std::bit_cast<cpuid_answer>(answers ? found->second[subleaf] : answer{});
  }
  [[nodiscard]] std::uint64_t xgetbv() const {
    EXPECT_TRUE(has(cpuid(1, 0).ecx, 1u << 27)) << "XGETBV would fault";
    return xcr0;
  }
};

// Leaf 0 with a vendor string (12 characters).
answer vendor_leaf(std::uint32_t maximum_leaf, const char* vendor) {
  std::uint32_t words[3];
  std::memcpy(words, vendor, sizeof words);
  return {maximum_leaf, words[0], words[2], words[1]};
}

constexpr const char *own_vendor = "GenuineZorva", *second_vendor = "AuthenticAMD",
                     *foreign_vendor = "OtherVendor!";

// ---- Features and classes -----------------------------------------------------------------------

// The features by the published table. A feature requires all of its rows.
std::uint64_t published_word(const fake_processor& p) {
  const cpuid_answer one = p.cpuid(1, 0), seven = p.cpuid(7, 0), extended = p.cpuid(0x80000001, 0);
  const std::uint32_t model = one.eax & 0xf00f0;
  const bool in_order = model == 0x100c0 || model == 0x20060 || model == 0x20070;
  const std::uint32_t reported[] = {0,       1,         in_order,  one.edx,
                                    one.ecx, seven.ebx, seven.ecx, extended.ecx};
  const bool osxsave = has(one.ecx, 1u << 27);
  const std::uint64_t xcr0 = osxsave ? p.xcr0 : 0;
  const bool holds[] = {true, has(one.edx, 1u << 24), has(xcr0, 0x6ul), has(xcr0, 0x1eul),
                        has(xcr0, 0xe6ul)};
  std::uint64_t present = 0, missing = 0;
  for (const feature& f : features) {
    const bool found = has(reported[f.from], 1u << f.reported_bit) && holds[f.needs];
    (found ? present : missing) |= 1ul << f.indicator_bit;
  }
  return present & ~missing;
}

// The classes of family 6 and the features that each requires, without FXSAVE. A processor is in
// the last class whose features it all has. Family 15 gets at most the second class, any other
// family the first.
constexpr struct {
  std::uint32_t value;
  std::uint64_t takes;
} classes[] = {
    // clang-format off
    {0x1, mask_of("GENERIC_X86")},
    {0x800, mask_of("SSE3")},
    {0x1000, mask_of("SSSE3")},
    {0x4000, mask_of("MOVBE")},
    {0x2000, mask_of("SSE4_1")},
    {0x8000, mask_of("SSE4_2, POPCNT")},
    {0x10000, mask_of("PCLMULQDQ, AES")},
    {0x20000, mask_of("AVX")},
    {0x40000, mask_of("AVX, F16C")},
    {0x200000, mask_of("AVX, AVX2, BMI, LZCNT, FMA, HLE, RTM")},
    {0x800000, mask_of("AVX, ADX, RDSEED")},
    {0x2000000, mask_of("AVX, AVX512F, AVX512ER, AVX512PF, AVX512CD")},
    {0x4000000, mask_of("AVX, AVX512F, AVX512DQ, AVX512BW, AVX512VL")}};
// clang-format on
std::uint32_t published_class(fake_processor p) {
  answer& one = p.leaves[1][0];
  one[edx] |= 1 << 24;
  const std::uint64_t word = published_word(p);
  const std::uint32_t family = one[eax] >> 8 & 0xf;
  std::uint32_t last = 1;
  for (const auto& c : classes) {
    const bool counts = family == 6 || (family == 15 && c.value == 0x800);
    if (counts && has(word, c.takes)) last = c.value;
  }
  return last;
}

// The indicator with the vendor check and the one without, after detection.
using words = std::array<std::uint64_t, 2>;
constexpr std::uint64_t untouched = 0xdead;
words detected(const fake_processor& p, cpu::detection_mode mode, const vendor_rule& rule) {
  words w{untouched, untouched};
  cpu::detect_features(p, mode, rule, w[0], w[1]);
  return w;
}

// Of the maximum leaf only the value 0 matters. Every class occurs often, above all those that skip
// a step or are out of order.
TEST(Identification, IsWhatTheTablesSayOnRandomProcessors) {
  constexpr std::uint32_t families[] = {0x6f0, 0x6f0, 0x6f0, 0xff006f0, 0xf40, 0x500};
  std::map<std::uint32_t, int> met;
  for (std::uint32_t seed = 0; seed < random_cases(50000); ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 draw(seed);
    const auto one_in = [&](std::uint32_t cases) { return draw() % cases == 0; };
    const bool mostly_set = one_in(2);  // 7 of 8 bits are set, or else 1 of 2
    const auto bits = [&] {
      const auto half = static_cast<std::uint32_t>(draw());
      return mostly_set ? half | static_cast<std::uint32_t>(draw() | draw()) : half;
    };
    const vendor_rule& rule = one_in(7) ? any : own;
    const bool foreign = one_in(5);
    std::string vendor = own_vendor;
    if (foreign) vendor[draw() % vendor.size()] = '?';
    const auto maximum_leaf = static_cast<std::uint32_t>(draw() % 11);
    fake_processor p{.xcr0 = bits()};
    p.leaves[0] = {vendor_leaf(maximum_leaf, vendor.c_str())};
    for (const std::uint32_t leaf : {1u, 7u, 0x80000001u})
      p.leaves[leaf] = {{bits(), bits(), bits(), bits()}};
    if (!one_in(3)) p.leaves[1][0][eax] = families[draw() % std::size(families)];

    const std::uint64_t word = published_word(p);
    const bool accepted = maximum_leaf != 0 && (!foreign || rule.accepts_any());
    EXPECT_ELEMENTS(detected(p, cpu::detection_mode::any_vendor, rule),
                    (maximum_leaf == 0 ? words{1, untouched} : words{untouched, word}));
    EXPECT_ELEMENTS(detected(p, cpu::detection_mode::vendor_checked, rule),
                    (accepted ? words{word, word} : words{1, untouched}));
    const std::uint32_t expected = accepted ? published_class(p) : 1;
    EXPECT_EQ(cpu::classify(p, rule), expected);
    ++met[expected];
    p.cpuid_exists = false;
    EXPECT_EQ(cpu::classify(p, rule), 1u);
    if (HasFailure()) return;
  }
  EXPECT_EQ(met.size(), std::size(classes));
  for (const auto& [value, times] : met) EXPECT_GT(times, 50) << std::hex << value;
}

// ---- Caches -------------------------------------------------------------------------------------

// A sub-leaf of CPUID leaf 4. The arguments are real counts; the encoding stores them minus one.
constexpr std::uint32_t data = 1, instruction = 2, unified = 3;
constexpr answer cache(std::uint32_t type, std::uint32_t level, std::uint32_t ways,
                       std::uint32_t partitions, std::uint32_t line_bytes, std::uint32_t sets) {
  return {type | level << 5 | 0xfc000000,
          (ways - 1) << 22 | (partitions - 1) << 12 | (line_bytes - 1), sets - 1};
}
constexpr answer usual = cache(data, 1, 8, 1, 64, 64), second = cache(unified, 2, 8, 2, 128, 512),
                 third = cache(unified, 3, 16, 1, 64, 8192);

using level_record = std::array<std::uint32_t, 4>;  // KB, line bytes, lines per sector, ways
using levels = std::vector<level_record>;           // from level 1 on

// Bytes of the largest cache and half of that, bytes of the data cache and half of that, bytes of a
// line of the largest cache, method.
using thresholds = std::array<std::int32_t, 6>;

struct row {
  const char* what;
  const vendor_rule& rule;
  const char* vendor;
  std::uint32_t maximum_leaf;
  std::map<std::uint32_t, std::vector<answer>> leaves;
  levels caches = {};
  std::optional<thresholds> derived = {};
};
fake_processor processor_of(const row& r) {
  fake_processor p{r.leaves};
  p.leaves[0] = {vendor_leaf(r.maximum_leaf, r.vendor)};
  return p;
}

void expect_caches(cpu::cache_table& table, levels expected) {
  EXPECT_EQ(table.unused, 0u);
  EXPECT_EQ(table.computed, 1u);
  expected.resize(3);
  for (const std::uint32_t i : {1u, 2u, 3u})
    EXPECT_EQ(std::bit_cast<level_record>(table.level(i)), expected[i - 1]) << "level " << i;
}

constexpr answer mmx = {0x664, 0, 0, 1 << 23}, sse2 = {0x664, 0, 0, 1 << 23 | 1 << 26};
constexpr std::int32_t mb = 1 << 20;
const levels at_level_2 = {{}, {4096, 64, 1, 16}}, at_level_3 = {{}, {}, {4096, 64, 1, 16}};
const row rows[] = {
    // clang-format off
    {"leaf 4: the later cache of a level from 1 to 3; data and unified; eight sub-leaves, by any",
     any, own_vendor, 4,
     {{1, {sse2}}, {2, {{0x7d01}}}, {0x80000000, {{0x8000001d}}}, {0x8000001d, {usual}},
      {4, {cache(unified, 0, 8, 1, 64, 64), cache(unified, 4, 8, 1, 64, 64), usual, second, third,
           cache(instruction, 1, 4, 1, 9, 8), cache(19, 3, 8, 1, 64, 9),
           cache(data, 1, 1, 1, 64, 128), usual}}},
     {{8, 64, 1, 1}, {1024, 128, 2, 8}, {8192, 64, 1, 16}},
     thresholds{8 * mb, 4 * mb, 8192, 4096, 64, 2}},
    {"leaf 4: up to an empty sub-leaf; the line is all of its sector", own, own_vendor, 11,
     {{1, {mmx}}, {4, {cache(data, 1, 8, 2, 64, 64), {}, second}}}, {{64, 64, 2, 8}},
     thresholds{65536, 32768, 65536, 32768, 128, 1}},
    {"leaf 4 without level 1, of equal sizes the first; leaf 2 once", own, own_vendor, 11,
     {{4, {cache(unified, 3, 8, 2, 64, 2048)}}, {2, {{0x452c01}, {0x0e00}}}},
     {{32, 64, 1, 8}, {2048, 32, 1, 4}, {2048, 64, 2, 8}},
     thresholds{2 * mb, mb, 32768, 16384, 32, 0}},
    {"leaf 2: four times at most, registers without bit 31, each from its lowest byte", own,
     own_vendor, 3, {{4, {usual}}, {2, {{0x80002c05, 0x60, 0x7e417a00, 0x4c000000}, {},
                                        {0, 0, 0x80007d00}, {0, 0, 0, 0x23}, {0x0e00}}}},
     {{16, 64, 1, 8}, {256, 128, 1, 12}, {1024, 64, 2, 8}}},
    {"leaf 2: descriptor 0xff", own, own_vendor, 4,
     {{2, {{0x7d2c01, 0xff00, 0x60}}}, {4, {third}}}},
    {"leaf 2: not once, nor the extended leaf", own, own_vendor, 4,
     {{2, {{0x7d2c00}}}, {0x80000000, {{0x80000020}}}, {0x8000001d, {usual}}}},
    {"no leaf 2", own, own_vendor, 1, {{2, {{0x7d2c01}}}, {4, {usual}}}},
    {"no leaf 1", own, own_vendor, 0, {{1, {sse2}}}, {}, thresholds{}},
    // Level 3 on family 15, model 6: the upper four bits of the extended family count.
    {"0x49, model 6", own, own_vendor, 2, {{1, {{0xf64}}}, {2, {{0x4901}}}}, at_level_3},
    {"0x49, model 22", own, own_vendor, 2, {{1, {{0x10f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"0x49, family 30", own, own_vendor, 2, {{1, {{0xf00f64}}}, {2, {{0x4901}}}}, at_level_3},
    {"0x49, family 31", own, own_vendor, 2, {{1, {{0x1000f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"0x49, family 47", own, own_vendor, 2, {{1, {{0x2000f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"0x49, family 79", own, own_vendor, 2, {{1, {{0x4000f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"0x49, family 143", own, own_vendor, 2, {{1, {{0x8000f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"other vendor", own, foreign_vendor, 4, {{1, {sse2}}, {4, {usual}}}, {}, thresholds{}},
    {"second vendor", own, second_vendor, 4,
     {{1, {sse2}}, {4, {usual}}, {0x80000000, {{0x80000006}}},
      {0x80000006, {{0, 0, 512 << 16 | 0x140}}}}, {}, thresholds{mb / 2, mb / 4, 0, 0, 0, 1}},
    {"second vendor without MMX, nor the leaf", own, second_vendor, 4,
     {{1, {{0, 0, 0, 1 << 26}}}, {0x80000000, {{0x80000005}}}, {0x80000006, {{0, 0, 512 << 16}}}},
     {}, thresholds{}},
    {"any vendor", any, second_vendor, 4,
     {{0x80000000, {{0x8000001d}}}, {0x8000001d, {usual, second}}},
     {{32, 64, 1, 8}, {1024, 128, 2, 8}}, thresholds{mb, mb / 2, 32768, 16384, 256, 0}},
    {"any vendor, no extended leaf", any, second_vendor, 4,
     {{0x80000000, {{0x8000001c}}}, {0x8000001d, {usual}}}},
    // clang-format on
};

// Loading asks for the vendor once, and for nothing that a query has found already.
TEST(Caches, AreFoundAtLoadAndThresholdsDerived) {
  for (const row& r : rows)
    for (const bool exists : {true, false}) {
      SCOPED_TRACE(testing::Message() << r.what << (exists ? "" : ", without CPUID"));
      fake_processor p = processor_of(r);
      p.cpuid_exists = exists;
      cpu::cache_table tables[2] = {};  // a level 4 would be stored in the second
      const auto load = [&] {
        return std::bit_cast<thresholds>(cpu::thresholds_at_load(p, r.rule, tables[0]));
      };
      const thresholds derived = load();
      expect_caches(tables[0], exists ? r.caches : levels{});
      EXPECT_EQ(tables[1].vendor_accepted, 0u);
      EXPECT_EQ(derived, exists ? r.derived.value_or(derived) : thresholds{});
      EXPECT_EQ(p.asked[0], exists ? 1 : 0);

      p.asked.clear();
      EXPECT_EQ(load(), derived);
      EXPECT_EQ(p.asked[2] + p.asked[4] + p.asked[0x8000001d], 0);
    }
}

// The descriptors of data and unified caches as vendors publish them. Only the size of 0x4c
// differs: 12228 is part of the interface. Where a row has several codes, each cache is twice as
// large as the one before.
constexpr struct {
  std::uint32_t code, codes, level, size_kb, ways, line_bytes, lines_per_sector;
} descriptors[] = {
    // clang-format off
    {0x0a, 1, 1, 8, 2, 32, 1},    {0x0c, 1, 1, 16, 4, 32, 1},   {0x0d, 1, 1, 16, 4, 64, 1},
    {0x0e, 1, 1, 24, 6, 64, 1},   {0x10, 1, 1, 16, 4, 32, 1},   {0x1a, 1, 2, 96, 6, 64, 1},
    {0x1d, 1, 2, 128, 2, 64, 1},  {0x21, 1, 2, 256, 8, 64, 1},  {0x22, 1, 3, 512, 4, 64, 2},
    {0x23, 1, 3, 1024, 8, 64, 2}, {0x24, 1, 2, 1024, 16, 64, 1}, {0x25, 1, 3, 2048, 8, 64, 2},
    {0x29, 1, 3, 4096, 8, 64, 2}, {0x2c, 1, 1, 32, 8, 64, 1},   {0x39, 1, 2, 128, 4, 64, 1},
    {0x3a, 1, 2, 192, 6, 64, 1},  {0x3b, 1, 2, 128, 2, 64, 1},  {0x3c, 1, 2, 256, 4, 64, 1},
    {0x3d, 1, 2, 384, 6, 64, 1},  {0x3e, 1, 2, 512, 4, 64, 1},  {0x3f, 1, 2, 256, 4, 64, 1},
    {0x41, 5, 2, 128, 4, 32, 1},  {0x46, 1, 3, 4096, 4, 64, 1}, {0x47, 1, 3, 8192, 8, 64, 1},
    {0x48, 1, 2, 3072, 12, 64, 1}, {0x49, 1, 2, 4096, 16, 64, 1}, {0x4a, 1, 3, 6144, 12, 64, 1},
    {0x4b, 1, 3, 8192, 16, 64, 1}, {0x4c, 1, 3, 12228, 12, 64, 1}, {0x4d, 1, 3, 16384, 16, 64, 1},
    {0x4e, 1, 2, 6144, 24, 64, 1}, {0x60, 1, 1, 16, 8, 64, 1},   {0x62, 1, 1, 32, 8, 64, 1},
    {0x66, 4, 1, 8, 4, 64, 2},    {0x78, 1, 2, 1024, 4, 64, 1}, {0x79, 5, 2, 128, 8, 64, 2},
    {0x7e, 1, 2, 256, 12, 128, 1}, {0x7f, 1, 2, 512, 2, 64, 1},  {0x80, 1, 2, 512, 8, 64, 1},
    {0x81, 5, 2, 128, 8, 32, 1},  {0x86, 1, 2, 512, 4, 64, 1},  {0x87, 1, 2, 1024, 8, 64, 1},
    {0x88, 3, 3, 2048, 4, 64, 1}, {0x8d, 1, 3, 3072, 12, 128, 1}, {0xd0, 3, 3, 512, 4, 64, 1},
    {0xd6, 3, 3, 1024, 8, 64, 1}, {0xdc, 3, 3, 2048, 12, 64, 1}, {0xe2, 3, 3, 2048, 16, 64, 1},
    {0xea, 1, 3, 12288, 24, 64, 1}, {0xeb, 1, 3, 18432, 24, 64, 1}, {0xec, 1, 3, 24576, 24, 64, 1}};
// clang-format on
TEST(Caches, DescriptorsAreThePublishedOnes) {
  for (std::uint32_t code = 0; code < 0xff; ++code) {
    SCOPED_TRACE(testing::Message() << "descriptor 0x" << std::hex << code);
    levels expected(3);
    for (const auto& d : descriptors)
      if (d.code <= code && code < d.code + d.codes)
        expected[d.level - 1] = {d.size_kb << (code - d.code), d.line_bytes, d.lines_per_sector,
                                 d.ways};
    const fake_processor p = processor_of({"", own, own_vendor, 2, {{2, {{code << 8 | 1}}}}});
    cpu::cache_table table = {};
    cpu::detect_caches(p, own, table);
    expect_caches(table, expected);
  }
}

// ---- This machine's processor -------------------------------------------------------------------

// A table from which different values are derived for everything.
constexpr cpu::cache_table known = {
    1, 1, 0, 1, {{32, 64, 1, 8}, {256, 64, 1, 8}, {4096, 64, 2, 16}}};

// The constructor ran when this program was loaded. A second call does the same again.
TEST(ThisProcessor, LoadingStoresEveryThreshold) {
  const cpu::cache_table loaded = std::exchange(__libvrt_cache_tbl, known);
  EXPECT_EQ(loaded.computed, 1u);
  load_time_initialiser();
  EXPECT_EQ(__libvrt_largest_cache_size, 4 * mb);
  EXPECT_EQ(__libvrt_largest_cache_size_half, 2 * mb);
  EXPECT_EQ(__libvrt_data_cache_size, 32768);
  EXPECT_EQ(__libvrt_data_cache_size_half, 16384);
  EXPECT_EQ(__libvrt_largest_cachelinesize, 128);
  EXPECT_EQ(__libvrt_mem_ops_method, 2) << "SSE2, which every processor has that runs this";
  EXPECT_EQ(__libvrt_tmp, 2);
  __libvrt_cache_tbl = loaded;
  load_time_initialiser();
}

// A query runs detection where nothing is known, but not for a level that cannot exist.
TEST(ThisProcessor, QueriesGiveTheSizeOfALevel) {
  const cpu::cache_table loaded = __libvrt_cache_tbl;
  for (const std::uint32_t level : {1u, 2u, 3u}) {
    __libvrt_cache_tbl = {};
    EXPECT_EQ(__cacheSize(level), loaded.levels[level - 1].size_kb) << level;
    EXPECT_EQ(__libvrt_cache_tbl.computed, 1u) << level;
    __libvrt_cache_tbl = known;
    EXPECT_EQ(__cacheSize(level), known.levels[level - 1].size_kb) << level;
  }
  __libvrt_cache_tbl = {};
  for (const std::uint32_t level : {0u, 4u, ~0u}) EXPECT_EQ(__cacheSize(level), 0u) << level;
  EXPECT_EQ(__libvrt_cache_tbl.computed, 0u);
  __libvrt_cache_tbl = loaded;
}

TEST(ThisProcessor, RoutinesChangeNoRegister) {
  const register_file filled = filled_registers(1);
  const std::pair<const char*, void (*)()> routines[] = {
      {"__zorva_cpu_features_init", __zorva_cpu_features_init},
      {"__zorva_cpu_features_init_x", __zorva_cpu_features_init_x},
      {"__zorva_cpu_indicator_init", __zorva_cpu_indicator_init}};
  for (const auto& [name, routine] : routines)
    EXPECT_EQ(changed_registers(filled, call_with_registers(routine, filled)),
              std::vector<std::string>{})
        << name;
  EXPECT_NE(__zorva_cpu_feature_indicator, 0u) << "a dispatcher would ask for ever";
  EXPECT_EQ(run_in_child(__zorva_cpu_dispatch_fail), (outcome{"", "", -1, SIGSEGV}));
}

}  // namespace
