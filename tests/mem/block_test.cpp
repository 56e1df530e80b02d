// Copies, moves and fills, byte for byte: every count at every alignment, every path that the cache
// values open, the ends of pages, every overlap. The oracle is the source block itself, or the one
// byte of a fill; around the destination lies a byte that neither has.
#include <algorithm>
#include <cstring>
#include <memory>

#include "mem/members.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

constexpr std::size_t canary = 64;

bool all_equal(const unsigned char* begin, const unsigned char* end, unsigned char byte) {
  // The first byte, and each byte like its neighbour.
  return begin >= end ||
         (*begin == byte &&
          std::memcmp(begin, begin + 1, static_cast<std::size_t>(end - begin) - 1) == 0);
}

// Counts on both sides of every limit that a member could have under these values, its own size
// classes and those of its cache thresholds, with room for the bytes that alignment takes off.
std::vector<std::size_t> counts_around_limits(const cache_values& v) {
  const auto l = static_cast<std::size_t>(v.largest), d = static_cast<std::size_t>(v.data);
  const std::size_t half_d = d / 2;
  std::vector<std::size_t> counts;
  for (const std::size_t limit : std::vector<std::size_t>{
           // size classes and iterations
           8, 64, 80, 128, 144, 176, 256, 512, 768, 1024, 1536, 2048, 4096,
           // first-level cache: fill by string instruction, copy by it, prefetch, split streaming
           d - d / 16, half_d - half_d / 4, half_d, half_d - half_d / 256, d, 2 * d,
           // largest cache: streaming, and the bounds of the split
           l, l / 2, l / 2 + 4096, l / 2 * 9,
           // the probing members
           16384, 16384 + 128})
    for (const std::size_t delta :
         {0u, 1u, 7u, 8u, 15u, 16u, 17u, 31u, 32u, 33u, 63u, 64u, 65u, 127u, 128u})
      for (const std::size_t count : {limit - delta, limit + delta})
        if (count < (std::size_t{1} << 20)) counts.push_back(count);  // drops those below zero
  return counts;
}

// A source full of pattern and a destination of ground, each between two guard pages.
class BlockMember : public over_members {
 protected:
  void lay_out(std::size_t bytes) {
    from_ = std::make_unique<guarded_block>(bytes);
    to_ = std::make_unique<guarded_block>(bytes);
    fill_with_pattern(from_->begin(), from_->size());
    master_.assign(from_->begin(), from_->end());
    std::memset(to_->begin(), ground_byte, to_->size());
  }

  // The result is exact, the destination is returned, and nothing around it is touched.
  void expect_exact(unsigned char* to, const unsigned char* from, std::size_t count) {
    bool good = false;
    if (const auto* copy = std::get_if<copy_function*>(&GetParam().call)) {
      good = (*copy)(to, from, count) == to && std::memcmp(to, from, count) == 0;
    } else {
      // Only the low 8 bits of the value count, or none.
      constexpr int values[] = {0x5a, 0, 0xff, -1, 0x100, 0x12345680};
      const int value = values[(count + reinterpret_cast<std::uintptr_t>(to)) % 6];
      good = std::get<fill_function*>(GetParam().call)(to, value, count) == to &&
             all_equal(to, to + count,
                       static_cast<unsigned char>(GetParam().what == kind::zero ? 0 : value));
    }
    good = good && all_equal(std::max(to_->begin(), to - canary), to, ground_byte) &&
           all_equal(to + count, std::min(to_->end(), to + count + canary), ground_byte);
    std::memset(to, ground_byte, count);
    ASSERT_TRUE(good) << "count " << count << ", source " << from - from_->begin()
                      << " and destination " << to - to_->begin() << " within their areas";
  }

  // Runs a body under each of the settings; at the end nobody may have written elsewhere.
  template <class Settings, class Body>
  void under_each(const Settings& settings, Body body) {
    for (const cache_values& caches : settings) {
      SCOPED_TRACE(testing::Message() << caches);
      const under_caches scope(caches);
      body(caches);
      if (HasFatalFailure()) return;
    }
    EXPECT_TRUE(std::equal(master_.begin(), master_.end(), from_->begin()));
    EXPECT_TRUE(all_equal(to_->begin(), to_->end(), ground_byte));
  }

  // Of so many places of the source, which a fill has none of.
  [[nodiscard]] std::size_t sources(std::size_t count) const {
    return std::holds_alternative<copy_function*>(GetParam().call) ? count : 1;
  }

  std::unique_ptr<guarded_block> from_, to_;
  std::vector<unsigned char> master_;
};
#define ASSERT_EXACT(...)          \
  do {                             \
    expect_exact(__VA_ARGS__);     \
    if (HasFatalFailure()) return; \
  } while (false)

// Up to 300 at every alignment of both blocks; beyond, every iteration number of every bulk loop
// meets every length of remainder.
TEST_P(BlockMember, EveryCountAtEveryAlignment) {
  lay_out(16384);
  const std::size_t step = sanitized ? 5 : 1;
  under_each(cache_settings, [&](const cache_values&) {
    for (std::size_t count = 0; count <= 300; ++count)
      for (std::size_t t = 0; t < 64; ++t)
        for (std::size_t f = (count + t) % step; f < sources(64); f += step)
          ASSERT_EXACT(to_->begin() + 64 + t, from_->begin() + 64 + f, count);
    for (std::size_t count = 301; count <= 2600; count += sanitized ? 11 : 1)
      for (std::size_t t = 0; t < 32; ++t)
        for (std::size_t f = (count + t) % 8; f < sources(16) + 7; f += 8)
          ASSERT_EXACT(to_->begin() + 64 + count * 7 % 16 * 16 + t,
                       from_->begin() + count % 16 * 16 + f, count);
  });
}

// With low address bytes on both sides of the sign, since some members choose a direction by them,
// and against the guard pages.
TEST_P(BlockMember, CountsAroundEveryLimit) {
  lay_out(std::size_t{2} << 20);
  const std::size_t step = sanitized ? 7 : 1;
  under_each(cache_settings, [&](const cache_values& caches) {
    std::vector<std::size_t> counts = counts_around_limits(caches);
    for (std::size_t count = 0; count <= 300; ++count) counts.push_back(count);
    std::size_t turn = 0;
    for (const std::size_t count : counts) {
      const std::size_t page = count > 65536 ? 0 : ++turn % 8 * 4096;
      for (const std::size_t t : {0u, 1u, 8u, 15u, 16u, 33u, 63u, 130u})
        for (std::size_t f = (count + t) % step; f < sources(count > 65536 ? 3 : 17); f += step)
          ASSERT_EXACT(to_->begin() + page + t + 64, from_->begin() + f * 37 % 256, count);
      for (unsigned char* const to : {to_->begin(), to_->end() - count})
        for (const unsigned char* const from : {from_->begin(), from_->end() - count})
          ASSERT_EXACT(to, from, count);
    }
  });
}

// With caches of 1 MiB all is streamed; with larger ones the string instructions and the split
// between cache and memory come in.
TEST_P(BlockMember, TensOfMegabytes) {
  constexpr std::size_t mebibyte = 1 << 20;
  lay_out(33 * mebibyte);
  constexpr cache_values settings[] = {
      ordinary, {32 << 20, 1 << 20}, {128 << 20, 32 << 10}, {1 << 20, 64 << 20}};
  under_each(settings, [&](const cache_values&) {
    for (const std::size_t count : {mebibyte + 3, 32 * mebibyte + 77})
      for (const std::size_t f : {0u, 5u, 129u})
        ASSERT_EXACT(to_->begin() + 67, from_->begin() + f, count);
  });
}

INSTANTIATE_TEST_SUITE_P(
    Block, BlockMember,
    testing::ValuesIn(members_of({kind::copy, kind::move, kind::fill, kind::zero})), name_of_row);

class MoveMember : public over_members {
 protected:
  static constexpr std::size_t arena_bytes = 65536;
  void SetUp() override {
    over_members::SetUp();
    fill_with_pattern(arena_.begin(), arena_bytes);
    master_.assign(arena_.begin(), arena_.end());
  }

  // Moves a block by a distance up, and one back down. All the rest of the arena must stay.
  void try_distance(std::size_t base, std::size_t distance, std::size_t count) {
    unsigned char* const a = arena_.begin();
    const std::size_t low = base - canary, high = base + distance + count + canary;
    for (const auto& [from, to] : {std::pair{base, base + distance}, {base + distance, base}}) {
      const bool moved =
          std::get<copy_function*>(GetParam().call)(a + to, a + from, count) == a + to &&
          std::memcmp(a + to, master_.data() + from, count) == 0;
      std::memcpy(a + to, master_.data() + to, count);
      ASSERT_TRUE(moved && std::memcmp(a + low, master_.data() + low, high - low) == 0)
          << "from " << from << " to " << to << ", count " << count;
    }
  }
  guarded_block arena_{arena_bytes};
  std::vector<unsigned char> master_;
};

TEST_P(MoveMember, EveryOverlap) {
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(testing::Message() << caches);
    const under_caches scope(caches);
    std::size_t turn = 0;
    const auto try_some = [&](std::size_t distance, std::size_t count, int in) {
      if (++turn % (sanitized ? static_cast<std::size_t>(in) : 1) == 0)
        try_distance(128 + turn * 29 % 256, distance, count);
    };
    for (std::size_t count = 1; count <= 400; ++count)
      for (std::size_t distance = 0; distance <= count && !HasFatalFailure(); ++distance)
        for (int place = 0; place < 3; ++place) try_some(distance, count, 16);
    for (const std::size_t count : {511u, 768u, 1025u, 1800u, 3333u, 6000u})
      for (std::size_t distance = 1; distance < count && !HasFatalFailure(); ++distance)
        for (int place = 0; place < 2; ++place) try_some(distance, count, 37);
    for (const std::size_t count : counts_around_limits(caches))
      for (const std::size_t distance :
           std::vector<std::size_t>{1, 15, 16, 33, 64, 127, 300, 4097, count / 2, count - 1})
        if (distance < count && count <= 24000) try_some(distance, count, 13);
    if (HasFatalFailure()) return;
  }
  EXPECT_TRUE(std::equal(master_.begin(), master_.end(), arena_.begin()));
}
INSTANTIATE_TEST_SUITE_P(Block, MoveMember, testing::ValuesIn(members_of({kind::move})),
                         name_of_row);

// One routine, two names. A compiler takes two functions for different without looking.
TEST(MemberNames, OlderNamesAreTheSameRoutines) {
  copy_function* volatile const copies[] = {__zorva_memcpy, __zorva_new_memcpy};
  fill_function* volatile const fills[] = {__zorva_memset, __zorva_new_memset};
  EXPECT_EQ(copies[0], copies[1]);
  EXPECT_EQ(fills[0], fills[1]);
}

}  // namespace
}  // namespace zorvac::test
