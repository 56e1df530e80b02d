// Every member, call by call: the result byte for byte, the bytes around it, the ends of pages, every
// overlap, and what the calling convention keeps for the caller. The oracle is the C library.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>

#include "mem/members.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

// Random bytes between two guard pages, and what they are to be.
struct area {
  explicit area(unsigned seed) : master(bytes) {
    std::minstd_rand random(seed);
    for (unsigned char& byte : master) byte = static_cast<unsigned char>(random() >> 8);
    std::copy(master.begin(), master.end(), block.begin());
  }
  static constexpr std::size_t bytes = 33 << 20, slack = 1 << 16;
  guarded_block block{bytes};
  std::vector<unsigned char> master;
};

class Block : public testing::TestWithParam<member> {
 protected:
  // One call, of which one in 64 shows that what belongs to the caller survives: callee-saved
  // registers, the direction flag, and upper halves that were zero, since dirty ones slow down SSE
  // code.
  std::uintptr_t call(unsigned char* to, std::uintptr_t second, std::size_t count) {
    if (counted || ++calls_ % 64 != 0) return GetParam().entry(to, second, count);
    register_file in = filled_registers(calls_);
    in.general[rdi] = reinterpret_cast<std::uintptr_t>(to);
    in.general[rsi] = second;
    in.general[rdx] = count;
    for (auto& vector : in.vector) std::fill(vector.begin() + 16, vector.end(), 0);
    const auto out = call_with_registers(reinterpret_cast<void (*)()>(GetParam().entry), in);
    for (const gpr kept : {rbx, rbp, r12, r13, r14, r15})
      EXPECT_EQ(out.general[kept], in.general[kept]) << kept;
    EXPECT_EQ(out.flags & 0x400, 0u) << "direction flag";
    for (std::size_t i = 0; i < 16; ++i)
      EXPECT_EQ(std::count(out.vector[i].begin() + 16, out.vector[i].end(), 0), 48) << i;
    return out.general[rax];
  }

  // One try, which leaves the areas as they were. Only the low 8 bits of a fill's value count, or
  // none. A comparison is of equal blocks, and of blocks that differ in one byte or two neighbours.
  void expect_exact(const area& d, std::size_t to, const area& s, std::size_t from,
                    std::size_t count) {
    const kind what = GetParam().what;
    unsigned char* const at = d.block.begin() + to;
    const unsigned char* expected = s.master.data() + from;
    auto second = reinterpret_cast<std::uintptr_t>(s.block.begin() + from);
    if (what == kind::fill || what == kind::zero) {
      second = random_();
      std::memset(filled_.data(), what == kind::zero ? 0 : static_cast<int>(second), count);
      expected = filled_.data();
    }
    bool good = true;
    if (what == kind::compare) {
      std::memcpy(at, expected, count);
      const std::size_t byte = random_() % (count + 1);
      for (const std::size_t changed : {count, byte, byte + 1}) {
        if (changed < count) at[changed] ^= static_cast<unsigned char>(random_() >> 8);
        const int order = std::memcmp(at, expected, count);
        good &= static_cast<int>(call(at, second, count)) == (order > 0) - (order < 0);
      }
    } else {
      good = call(at, second, count) == reinterpret_cast<std::uintptr_t>(at) &&
             std::memcmp(at, expected, count) == 0;
    }
    std::memcpy(at, d.master.data() + to, count);
    const std::size_t low = to - std::min<std::size_t>(to, 64),
                      high = std::min(to + count + 64, area::bytes);
    ASSERT_TRUE(good &&
                std::equal(d.block.begin() + low, d.block.begin() + high, d.master.begin() + low))
        << count << " bytes from " << from << " to " << to << (&d == &s ? " in one" : "");
  }

  area to_{1}, from_{2};
  std::vector<unsigned char> filled_ = std::vector<unsigned char>(area::bytes);
  std::minstd_rand random_{3};
  unsigned calls_ = 0;
};

constexpr cache_values settings[] = {
    ordinary,
    {2048, 512},          // streams, splits and repeats with small blocks
    {0, 0},               // unknown caches
    {0, 0, 0},            // and only general registers
    {4096, 0, 1},         // only the largest level known, no vectors
    {1024, 8192},         // nonsense must stay harmless
    {32 << 20, 1 << 20},  // megabytes within the caches
};

// Every small count, every iteration number of every bulk loop with every length of remainder, and
// both sides of every limit that a member could have under these values, with room for the bytes
// that alignment takes off.
std::vector<std::size_t> counts_for(const cache_values& v) {
  const auto l = static_cast<std::size_t>(v.largest), d = static_cast<std::size_t>(v.data);
  std::vector<std::size_t> counts(2600);
  std::iota(counts.begin(), counts.end(), 0);
  for (const std::size_t limit :
       {std::size_t{4096}, std::size_t{16384}, d - d / 16, d / 2 - d / 8, d / 2, d / 2 - d / 512, d,
        2 * d, l, l / 2, l / 2 + 4096, l / 2 * 9})
    for (std::size_t delta = 1; delta <= 256; delta *= 2)
      for (const std::size_t count : {limit - delta, limit + delta - 1})
        if (count < (delta == 64 ? area::bytes - 2 * area::slack : 1 << 20))
          counts.push_back(count);
  return counts;
}

// All pairs of alignments for the smallest counts, and with them all distances of overlap; the ends
// of pages.
TEST_P(Block, IsExactAtEveryCountAlignmentAndOverlap) {
  const member& m = GetParam();
  if (m.runs == 0) GTEST_SKIP() << "this processor cannot run it";
  for (const cache_values& caches : settings) {
    SCOPED_TRACE(testing::Message() << "setting " << &caches - settings);
    set_caches(caches);
    for (const std::size_t count : counts_for(caches)) {
      const bool all = count <= 300, copies = m.what != kind::fill && m.what != kind::zero;
      const std::size_t tries = !all ? (count < 65536 ? 24 : 1) : copies ? 64 * 64 : 64;
      for (std::size_t i = 0; i < tries; i += sanitized ? 1 + random_() % 31 : 1) {
        const std::size_t random = random_(), place = count < 65536 ? random % 64 * 64 : 0,
                          pair = all ? i : random / 64, t = pair % 64, f = pair / 64 % 64;
        expect_exact(to_, place + t, from_, f * 65, count);
        if (m.what != kind::move || i > 4 * count) continue;
        const std::size_t distance =
                              all ? i % (count + 1) : random_() % std::min(count, area::slack),
                          low = place + f, high = low + distance;
        expect_exact(from_, random % 2 ? low : high, from_, random % 2 ? high : low, count);
      }
      for (const std::size_t t : {std::size_t{0}, area::bytes - count})
        for (const std::size_t f : {std::size_t{0}, area::bytes - count})
          if (count < 65536) expect_exact(to_, t, from_, f, count);
      if (HasFailure()) return;
    }
    if (m.what == kind::compare) break;  // looks at no cache value
  }
  for (const area* a : {&to_, &from_})
    EXPECT_TRUE(std::equal(a->master.begin(), a->master.end(), a->block.begin()));
}
INSTANTIATE_TEST_SUITE_P(Members, Block, testing::ValuesIn(members), name_of_row);

// One takes a count from the upper half for "below 1", the other equal pointers for equal blocks.
TEST(Compare, ReadsNothingWhereNothingCounts) {
  const guarded_block block(4096);
  EXPECT_EQ(__zorva_new_memcmp(block.end(), block.end() + 1, SIZE_MAX), 0);
  EXPECT_EQ(_zorva_fast_memcmp(block.end(), block.end(), 100), 0);
}

}  // namespace
}  // namespace zorvac::test
