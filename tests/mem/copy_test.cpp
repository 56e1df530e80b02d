// Copies and moves, byte for byte: every count at every alignment, every path that the cache values
// open, the ends of pages, every overlap. The oracle is the source block itself; the destination is
// zero all around and the source never is, so a byte too few or too many shows.
#include <array>
#include <memory>

#include "mem/members.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

constexpr std::size_t canary = 64;

// A source full of pattern and a destination full of zeros, each between two guard pages.
class copy_ground {
 public:
  explicit copy_ground(std::size_t bytes) : from_(bytes), to_(bytes), master_(from_.size()) {
    fill_with_pattern(from_.begin(), from_.size());
    std::memcpy(master_.data(), from_.begin(), from_.size());
  }

  guarded_block& from() { return from_; }
  guarded_block& to() { return to_; }

  // Whether the copy is exact, returns its destination and touches nothing around it.
  [[nodiscard]] bool exact(copy_function* copy, unsigned char* to, const unsigned char* from,
                           std::size_t count) {
    const bool returned = copy(to, from, count) == to;
    const bool copied = std::memcmp(to, from, count) == 0;
    const bool clean = zero(std::max(to_.begin(), to - canary), to) &&
                       zero(to + count, std::min(to_.end(), to + count + canary));
    std::memset(to, 0, count);
    return returned && copied && clean;
  }

  // Whether nothing ever wrote to the source, nor to the destination far from the block.
  [[nodiscard]] bool untouched() {
    return std::memcmp(from_.begin(), master_.data(), from_.size()) == 0 &&
           zero(to_.begin(), to_.end());
  }

 private:
  static bool zero(const unsigned char* begin, const unsigned char* end) {
    static constexpr std::array<unsigned char, 4096> zeros{};
    for (; begin < end; begin += zeros.size()) {
      const auto left = static_cast<std::size_t>(end - begin);
      if (std::memcmp(begin, zeros.data(), std::min(left, zeros.size())) != 0) return false;
    }
    return true;
  }

  guarded_block from_, to_;
  std::vector<unsigned char> master_;
};

#define ASSERT_EXACT(ground, to, from, count)                                                \
  ASSERT_TRUE((ground).exact(GetParam().copy, to, from, count))                              \
      << "count " << (count) << ", source " << reinterpret_cast<std::uintptr_t>(from) % 4096 \
      << " and destination " << reinterpret_cast<std::uintptr_t>(to) % 4096                  \
      << " within their pages"

class CopyMember : public over_members<copy_member> {};

TEST_P(CopyMember, EveryCountAtEveryAlignment) {
  copy_ground ground(4096);
  unsigned char* const to = ground.to().begin() + 64;
  const unsigned char* const from = ground.from().begin() + 64;
  const std::size_t step = sanitized ? 5 : 1;
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (std::size_t count = 0; count <= 300; ++count)
      for (std::size_t t = 0; t < 64; ++t)
        for (std::size_t f = (count + t) % step; f < 64; f += step)
          ASSERT_EXACT(ground, to + t, from + f, count);
  }
  EXPECT_TRUE(ground.untouched());
}

TEST_P(CopyMember, CountsAroundEveryLimit) {
  copy_ground ground(std::size_t{2} << 20);
  const std::size_t step = sanitized ? 7 : 1;
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    std::size_t turn = 0;
    for (const std::size_t count : counts_around_limits(caches)) {
      // Low address bytes on both sides of the sign: some members choose a direction by them.
      const std::size_t page = count > 65536 ? 0 : ++turn % 8 * 4096;
      const std::size_t sources = count > 65536 ? 3 : 17;
      for (const std::size_t t : {0u, 1u, 8u, 15u, 16u, 33u, 63u, 130u})
        for (std::size_t f = (count + t) % step; f < sources; f += step)
          ASSERT_EXACT(ground, ground.to().begin() + page + t + 64,
                       ground.from().begin() + f * 37 % 256, count);
    }
  }
  EXPECT_TRUE(ground.untouched());
}

// Every count up to some thousands, so that every iteration number of every bulk loop meets every
// length of remainder.
TEST_P(CopyMember, EveryCountOfSeveralIterations) {
  copy_ground ground(16384);
  const std::size_t step = sanitized ? 11 : 1;
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (std::size_t count = 301; count <= 2600; count += step)
      for (std::size_t t = 0; t < 16; ++t)
        for (std::size_t f = 0; f < 16; ++f)
          ASSERT_EXACT(ground, ground.to().begin() + 64 + count * 7 % 16 * 16 + t,
                       ground.from().begin() + count % 16 * 16 + f, count);
  }
  EXPECT_TRUE(ground.untouched());
}

TEST_P(CopyMember, StaysWithinItsPages) {
  copy_ground ground(65536);
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    std::vector<std::size_t> counts = counts_around_limits(caches);
    for (std::size_t count = 0; count <= 300; ++count) counts.push_back(count);
    for (const std::size_t count : counts) {
      if (count > 32768) continue;
      for (unsigned char* const to : {ground.to().begin(), ground.to().end() - count})
        for (const unsigned char* const from : {ground.from().begin(), ground.from().end() - count})
          ASSERT_EXACT(ground, to, from, count);
    }
  }
  EXPECT_TRUE(ground.untouched());
}

TEST_P(CopyMember, TensOfMegabytes) {
  constexpr std::size_t mebibyte = std::size_t{1} << 20;
  copy_ground ground(33 * mebibyte);
  // With caches of 1 MiB all is streamed; with larger ones the string instructions and the split
  // between cache and memory come in.
  for (const cache_values& caches :
       {ordinary, cache_values{"Large", 32 * mebibyte, 1 * mebibyte, 2},
        cache_values{"Huge", 128 * mebibyte, 32 << 10, 2}}) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (const std::size_t count : {mebibyte + 3, 32 * mebibyte + 77})
      for (const std::size_t f : {0u, 5u, 129u})
        ASSERT_EXACT(ground, ground.to().begin() + 67, ground.from().begin() + f, count);
  }
  EXPECT_TRUE(ground.untouched());
}

INSTANTIATE_TEST_SUITE_P(Block, CopyMember, testing::ValuesIn(copy_members), name_of_row);

class MoveMember : public over_members<copy_member> {
 protected:
  static constexpr std::size_t arena_bytes = 65536;

  // Moves a block to a destination `distance` bytes up or down. All the rest of the arena must
  // stay.
  [[nodiscard]] bool exact(std::size_t from, std::size_t to, std::size_t count) {
    unsigned char* const a = arena_->begin();
    const std::size_t low = std::min(from, to) - canary, high = std::max(from, to) + count;
    const bool returned = GetParam().copy(a + to, a + from, count) == a + to;
    const bool moved = std::memcmp(a + to, master_.data() + from, count) == 0;
    const bool kept =
        std::memcmp(a + low, master_.data() + low, to - low) == 0 &&
        std::memcmp(a + to + count, master_.data() + to + count, high + canary - (to + count)) == 0;
    std::memcpy(a + to, master_.data() + to, count);
    return returned && moved && kept;
  }

  void try_distance(std::size_t base, std::size_t distance, std::size_t count) {
    ASSERT_TRUE(exact(base, base + distance, count))
        << "up by " << distance << " from " << base << ", count " << count;
    ASSERT_TRUE(exact(base + distance, base, count))
        << "down by " << distance << " to " << base << ", count " << count;
  }

  void SetUp() override {
    over_members::SetUp();
    arena_ = std::make_unique<guarded_block>(arena_bytes);
    fill_with_pattern(arena_->begin(), arena_bytes);
    master_.assign(arena_->begin(), arena_->end());
  }

  void TearDown() override {
    if (arena_ == nullptr) return;
    EXPECT_EQ(std::memcmp(arena_->begin(), master_.data(), arena_bytes), 0);
  }

  std::unique_ptr<guarded_block> arena_;
  std::vector<unsigned char> master_;
};

TEST_P(MoveMember, EveryOverlapOfShortBlocks) {
  const std::size_t step = sanitized ? 16 : 1;
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (std::size_t count = 1; count <= 400; ++count)
      for (std::size_t distance = 0; distance <= count; ++distance)
        for (std::size_t turn = (count + distance) % step; turn < 8; turn += step)
          ASSERT_NO_FATAL_FAILURE(
              try_distance(128 + (count * 7 + distance * 3 + turn * 67) % 256, distance, count));
  }
}

TEST_P(MoveMember, EveryOverlapOfLongBlocks) {
  const std::size_t step = sanitized ? 37 : 1;
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (const std::size_t count : {511u, 768u, 1025u, 1800u, 3333u, 6000u})
      for (std::size_t distance = 1 + count % step; distance < count; distance += step)
        for (const std::size_t base : {128 + count % 19, 128 + 200 + distance % 31})
          ASSERT_NO_FATAL_FAILURE(try_distance(base, distance, count));
  }
}

TEST_P(MoveMember, OverlapsAroundEveryLimit) {
  const std::size_t step = sanitized ? 13 : 1;
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    std::size_t turn = 0;
    for (const std::size_t count : counts_around_limits(caches)) {
      if (count < 2 || count > 24000 || ++turn % step != 0) continue;
      for (const std::size_t distance :
           {std::size_t{1}, std::size_t{15}, std::size_t{16}, std::size_t{33}, std::size_t{64},
            std::size_t{127}, std::size_t{300}, std::size_t{4097}, count / 2, count - 1})
        if (distance < count) {
          ASSERT_NO_FATAL_FAILURE(try_distance(128 + turn * 29 % 256, distance, count));
        }
    }
  }
}

std::vector<copy_member> move_members() {
  std::vector<copy_member> moves;
  for (const copy_member& m : copy_members)
    if (m.moves) moves.push_back(m);
  return moves;
}
INSTANTIATE_TEST_SUITE_P(Block, MoveMember, testing::ValuesIn(move_members()), name_of_row);

// One routine, two names.
TEST(MemberNames, OlderNamesAreTheSameRoutines) {
  EXPECT_EQ(__zorva_memcpy, __zorva_new_memcpy);
  EXPECT_EQ(__zorva_memset, __zorva_new_memset);
}

}  // namespace
}  // namespace zorvac::test
