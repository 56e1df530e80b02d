// Pools on one thread: order, new pools, draining and starting over, what goes to the system, and
// what happens when the system has no memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <span>
#include <vector>

#include "mem/allocator.h"
#include "mem/imalloc.h"

namespace zorvac::test {
namespace {

struct kind {
  std::uint32_t size, blocks;
  int for_calloc;

  [[nodiscard]] char* allocate() const {
    return static_cast<char*>(for_calloc != 0 ? __i_pool_calloc(1, static_cast<int>(size))
                                              : __i_pool_malloc(size));
  }
};
constexpr kind kinds[] = {{64, 30'000, 0},  {64, 30'000, 1},  {40, 300'000, 0},
                          {48, 300'000, 0}, {48, 300'000, 1}, {96, 300'000, 0},
                          {1, 30'000, 0},   {24, 30'000, 1},  {1000, 30'000, 0}};

// Runs a body for each of the first kinds.
void for_kinds(std::size_t how_many, const std::function<void(const kind&)>& body) {
  for (const kind& k : std::span(kinds).first(how_many)) {
    SCOPED_TRACE(testing::Message() << k.size << " bytes, " << k.for_calloc);
    in_own_process([&] { body(k); });
  }
}

// Two pools of one kind through all states. Blocks come in order and are not reused one by one; a
// pool starts over, from its first block and all zero where it is to be, once every block is free.
TEST(Pool, LivesThroughItsStates) {
  for_kinds(std::size(kinds), [](const kind& k) {
    register_sizes({k.size}, k.for_calloc);
    const std::size_t bytes = std::size_t{k.size} * k.blocks;
    const auto fill_up = [&k](std::vector<char*>& blocks) {  // but for those taken already
      while (blocks.size() < k.blocks) blocks.push_back(k.allocate());
      for (std::size_t i = 0; i < blocks.size(); ++i) {
        ASSERT_EQ(blocks[i], blocks[0] + i * k.size);
        if (k.for_calloc != 0 && i != 0) {
          ASSERT_EQ(std::count(blocks[i], blocks[i] + k.size, 0), k.size) << i;
        }
        std::memset(blocks[i], 0xff, k.size);
      }
    };
    const auto expect_state = [&k](const mem::pool& p, const void* base, const void* saved,
                                   unsigned out, unsigned freed) {
      EXPECT_EQ(p.base.load_acquire(), base);
      EXPECT_EQ(p.saved_base, saved);
      EXPECT_EQ(p.handed_out.load_acquire(), out);
      EXPECT_EQ(p.freed.load_acquire(), freed);
      EXPECT_EQ(p.zeroed, static_cast<unsigned>(k.for_calloc));
      EXPECT_EQ(_i_pool_cr_sec, 0u);
    };
    std::vector<char*> blocks, others{nullptr};
    fill_up(blocks);
    EXPECT_EQ(system_allocator.malloc.count, 1);
    EXPECT_EQ(system_allocator.malloc.last, bytes);
    EXPECT_EQ(work_pool[0].last, blocks.back());
    expect_state(work_pool[0], blocks[0], nullptr, k.blocks, 0);
    char* const first = blocks[0];
    char* const kept = blocks[5];
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(1));
    for (char* block : blocks)
      if (block != kept) __i_pool_free(block);
    expect_state(work_pool[0], first, nullptr, k.blocks, k.blocks - 1);

    others[0] = k.allocate();  // a second pool, though but one block is in use
    EXPECT_EQ(system_allocator.malloc.count, 2);
    EXPECT_EQ(headerP.load_acquire(), &work_pool[1]);
    __i_pool_free(kept);
    expect_state(work_pool[0], nullptr, first, k.blocks, k.blocks);
    fill_up(others);  // the younger pool comes first
    const int fills = system_allocator.fill.count;
    blocks.assign(1, k.allocate());
    EXPECT_EQ(blocks[0], first);
    expect_state(work_pool[0], first, first, 1, 0);
    EXPECT_EQ(system_allocator.fill.count, fills + k.for_calloc);
    if (k.for_calloc != 0) {
      EXPECT_EQ(system_allocator.fill.last, bytes);
      EXPECT_EQ(std::count(first, first + bytes, 0), static_cast<std::ptrdiff_t>(bytes));
    }
    fill_up(blocks);
    EXPECT_EQ(system_allocator.malloc.count, 2);
    EXPECT_EQ(system_allocator.calloc.count + system_allocator.free.count, 0);
    EXPECT_EQ(last_pool_num, 2u);
  });
}

TEST(Unpooled, RequestsAndBlocksGoToTheSystem) {
  in_own_process([] {
    const auto expect_system_block = [](void* block, const calls& from, std::size_t bytes) {
      ASSERT_NE(block, nullptr);
      EXPECT_EQ(from.last, bytes);
      const int frees = system_allocator.free.count;
      __i_pool_free(block);
      EXPECT_EQ(system_allocator.free.count, frees + 1);
      EXPECT_EQ(system_allocator.free.last, reinterpret_cast<std::size_t>(block));
    };
    const auto& [malloc, calloc, realloc, free, fill, fails, next, maps] = system_allocator;
    expect_system_block(__i_pool_malloc(64), malloc, 64);  // nothing is registered yet
    expect_system_block(__i_pool_calloc(4, 16), calloc, 64);
    expect_system_block(__i_pool_realloc(nullptr, 64), realloc, 64);
    register_sizes({64}, 0);
    register_sizes({128}, 1);
    expect_system_block(__i_pool_malloc(65), malloc, 65);
    expect_system_block(__i_pool_malloc(128), malloc, 128);
    expect_system_block(__i_pool_malloc(0), malloc, 0);
    expect_system_block(__i_pool_calloc(4, 16), calloc, 64);
    expect_system_block(__i_pool_calloc(0, 16), calloc, 0);
    expect_system_block(__i_pool_realloc(nullptr, 64), realloc, 64);
    EXPECT_EQ(last_pool_num, 0u);
    EXPECT_NE(__i_pool_malloc(64), nullptr);
    EXPECT_NE(__i_pool_calloc(8, 16), nullptr);
    EXPECT_EQ(last_pool_num, 2u);
    expect_system_block(__i_pool_malloc(65), malloc, 65);  // now with pools to search
    const int frees = free.count;
    __i_pool_free(nullptr);
    EXPECT_EQ(free.count, frees + 1);
  });
}

TEST(Registration, TakesFiftySizesAndFiftyPoolsExist) {
  in_own_process([] {
    std::vector<std::uint32_t> sizes(60);  // no 0 at the end
    for (std::size_t i = 0; i < sizes.size(); ++i) sizes[i] = static_cast<std::uint32_t>(100 + i);
    __i_pool_init(sizes.data(), 0);
    EXPECT_EQ(Last_PoolP, &work_pool[49]);
    std::vector<void*> pooled;
    for (int i = 0; i < 50; ++i) pooled.push_back(__i_pool_malloc(sizes[static_cast<size_t>(i)]));
    EXPECT_EQ(system_allocator.malloc.count, 50);
    EXPECT_EQ(system_allocator.malloc.last, 30'000u * 149);
    void* const not_registered = __i_pool_malloc(150);
    EXPECT_EQ(system_allocator.malloc.last, 150u);
    __i_pool_free(not_registered);

    for (int i = 1; i < 30'000; ++i) pooled.push_back(__i_pool_malloc(100));
    EXPECT_EQ(system_allocator.malloc.count, 51);
    void* const no_room = __i_pool_malloc(100);
    EXPECT_EQ(system_allocator.malloc.last, 100u);
    EXPECT_EQ(last_pool_num, 50u);
    __i_pool_free(no_room);
    EXPECT_EQ(system_allocator.free.count, 2);

    void* const first = pooled[0];
    for (void* block : pooled) __i_pool_free(block);
    EXPECT_EQ(system_allocator.free.count, 2);
    EXPECT_EQ(__i_pool_malloc(100), first);  // a pool that was drained has room again
  });
}

TEST(Registration, ReplacesTheListAndLeavesPoolsAlone) {
  in_own_process([] {
    register_sizes({64, 128}, 0);
    char* const small = static_cast<char*>(__i_pool_malloc(64));
    std::memset(small, 1, 64);
    register_sizes({256}, 0);
    register_sizes({64}, 1);
    void* const unpooled = __i_pool_malloc(64);
    EXPECT_EQ(system_allocator.malloc.last, 64u);
    __i_pool_free(unpooled);
    EXPECT_EQ(system_allocator.free.count, 1);
    __i_pool_free(small);
    EXPECT_EQ(system_allocator.free.count, 1);
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
    register_sizes({64}, 0);
    EXPECT_EQ(__i_pool_malloc(64), small + 64);
  });
}

// The smaller size moves: between pools, to the system, and from a zeroed pool to one that is not.
TEST(PoolRealloc, MovesTheSmallerSize) {
  in_own_process([] {
    register_sizes({64, 128}, 0);
    register_sizes({64}, 1);
    const auto starts_with = [](const void* block, std::size_t count, int value) {
      const auto* bytes = static_cast<const unsigned char*>(block);
      return std::count(bytes, bytes + count, value) == static_cast<std::ptrdiff_t>(count);
    };
    const auto freed = [](int pool) { return work_pool[pool].freed.load_acquire(); };
    std::vector<unsigned char> memory(30'000 * 128, 0xee);
    system_allocator.next_malloc = memory.data();
    EXPECT_EQ(__i_pool_malloc(128), memory.data());

    void* block = std::memset(__i_pool_malloc(64), 7, 64);
    std::memset(__i_pool_malloc(64), 9, 64);  // its neighbour
    block = __i_pool_realloc(block, 128);
    EXPECT_EQ(block, memory.data() + 128);
    EXPECT_TRUE(starts_with(block, 64, 7));
    EXPECT_TRUE(starts_with(memory.data() + 192, 64, 0xee));  // not the neighbour
    EXPECT_EQ(freed(1), 1u);

    std::memset(block, 8, 128);
    block = __i_pool_realloc(block, 10);
    EXPECT_EQ(system_allocator.malloc.last, 10u);
    EXPECT_TRUE(starts_with(block, 10, 8));
    block = __i_pool_realloc(block, 64);  // stays with the system
    EXPECT_EQ(system_allocator.realloc.last, 64u);
    EXPECT_EQ(system_allocator.realloc.count, 1);
    __i_pool_free(block);

    const std::uint32_t handed_out = work_pool[1].handed_out.load_acquire();
    block = __i_pool_realloc(__i_pool_calloc(1, 64), 64);
    EXPECT_TRUE(starts_with(block, 64, 0));
    EXPECT_EQ(work_pool[1].handed_out.load_acquire(), handed_out + 1);
    EXPECT_EQ(freed(2), 1u);

    system_allocator.malloc_fails = true;  // the old block stays the caller's
    EXPECT_EQ(__i_pool_realloc(block, 1000), nullptr);
    EXPECT_EQ(freed(1), 1u);
  });
}

TEST(Pool, WithoutMemoryGivesNullAndTriesAgain) {
  for_kinds(2, [](const kind& k) {
    register_sizes({k.size, 128}, k.for_calloc);
    system_allocator.malloc_fails = true;
    for (int attempt = 1; attempt <= 100; ++attempt) {  // more than there are descriptors
      EXPECT_EQ(k.allocate(), nullptr);
      EXPECT_EQ(system_allocator.malloc.count, attempt);
      EXPECT_EQ(system_allocator.malloc.last, std::size_t{k.size} * k.blocks);
    }
    EXPECT_EQ(system_allocator.fill.count, 0);
    EXPECT_EQ(last_pool_num, 1u);
    EXPECT_EQ(_i_pool_cr_sec, 0u);
    __i_pool_free(nullptr);
    EXPECT_EQ(system_allocator.free.count, 1);
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 0u);

    system_allocator.malloc_fails = false;
    char* const first = k.allocate();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(k.allocate(), first + k.size);
    EXPECT_EQ(last_pool_num, 1u);
  });
}

// The bytes of a pool are a 32-bit signed product, taken to malloc as it is, and the zero fill
// stays within what malloc was asked for.
TEST(Pool, BytesAreThirtyTwoBitsWide) {
  for_kinds(2, [](kind k) {
    register_sizes({71'582, 71'583, 143'166}, k.for_calloc);
    system_allocator.malloc_fails = true;
    k.size = 71'582;
    EXPECT_EQ(k.allocate(), nullptr);
    EXPECT_EQ(system_allocator.malloc.last, 2'147'460'000u);
    k.size = 71'583;
    EXPECT_EQ(k.allocate(), nullptr);
    EXPECT_EQ(system_allocator.malloc.last, static_cast<std::size_t>(-2'147'477'296));

    system_allocator.malloc_fails = false;
    k.size = 143'166;
    std::vector<char*> blocks(30'000);
    for (char*& block : blocks) block = k.allocate();  // nearly all outside the memory: not touched
    EXPECT_EQ(system_allocator.malloc.last, 12'704u);
    for (char* block : blocks) __i_pool_free(block);
    const int fills = system_allocator.fill.count;
    EXPECT_EQ(k.allocate(), blocks[0]);
    EXPECT_EQ(system_allocator.fill.count, fills + k.for_calloc);
    if (k.for_calloc != 0) {
      EXPECT_EQ(system_allocator.fill.last, 12'704u);
    }
  });
}

}  // namespace
}  // namespace zorvac::test
