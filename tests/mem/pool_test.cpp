// Pools: order, new pools, draining and starting over, what goes to the system, what happens when it
// has no memory; and the same shared by threads, where every block has one owner at a time.
#include <algorithm>
#include <array>
#include <barrier>
#include <chrono>
#include <random>
#include <thread>

#include "mem/imalloc.h"
#include "mem/system.h"

namespace zorvac::test {
namespace {

void register_sizes(std::vector<std::uint32_t> sizes, int for_calloc) {
  sizes.push_back(0);
  __i_pool_init(sizes.data(), for_calloc);
}
char* allocate(std::uint32_t size, int for_calloc) {
  return static_cast<char*>(for_calloc != 0 ? __i_pool_calloc(1, static_cast<int>(size))
                                            : __i_pool_malloc(size));
}
void free_all(const std::vector<char*>& blocks) {
  for (char* block : blocks) __i_pool_free(block);
}

// Two pools of one kind through all states. Blocks come in order and are not reused one by one; a
// pool starts over, from its first block and all zero where it is to be, once every block is free.
TEST(Pool, LivesThroughItsStates) {
  constexpr struct {
    std::uint32_t size, blocks;
    int for_calloc;
    std::uint64_t header;  // 2: the memory is fresh
  } kinds[] = {{64, 30'000, 0, 2},  {64, 30'000, 1, 2},  {48, 300'000, 1, 0},
               {96, 300'000, 0, 2}, {40, 300'000, 0, 2}, {1, 30'000, 9, 0}};
  for (const auto& k : kinds)
    in_own_process([&] {
      the_system.header = k.header;
      register_sizes({k.size}, k.for_calloc);
      const std::string bytes = std::to_string(k.size * k.blocks) + ' ',
                        cleared = k.for_calloc != 0 ? "fill " + bytes : "",
                        opened = "malloc " + bytes + (k.header != 0 ? "" : cleared);
      const auto fill_up = [&](std::vector<char*>& blocks) {  // but for those taken already
        while (blocks.size() < k.blocks) blocks.push_back(allocate(k.size, k.for_calloc));
        for (std::size_t i = 0; i < blocks.size(); ++i) {
          ASSERT_EQ(blocks[i], blocks[0] + i * k.size);
          ASSERT_TRUE(k.for_calloc == 0 || std::count(blocks[i], blocks[i] + k.size, 0) == k.size);
          std::memset(blocks[i], 0xff, k.size);
        }
      };
      std::vector<char*> blocks, others, again;
      EXPECT_EQ(asked([&] { fill_up(blocks); }), opened);
      char* const first = blocks[0];
      std::shuffle(blocks.begin(), blocks.end(), std::minstd_rand(1));
      const std::vector<char*> kept{blocks.back()};
      blocks.pop_back();
      // A second pool, though but one block is in use. It is used up first.
      EXPECT_EQ(asked([&] { free_all(blocks), others = {allocate(k.size, k.for_calloc)}; }),
                opened);
      EXPECT_EQ(asked([&] { free_all(kept), fill_up(others); }), "");
      EXPECT_EQ(asked([&] { fill_up(again); }), cleared);
      EXPECT_EQ(again[0], first);
    });
}

TEST(Pool, LeavesToTheSystemWhatItDoesNotServe) {
  in_own_process([] {
    const std::pair<void* (*)(), std::string> steps[] = {
        {[] { return __i_pool_malloc(65); }, "malloc 65 "},
        {[] { return __i_pool_malloc(128); }, "malloc 128 "},
        {[] { return __i_pool_malloc(0); }, "malloc 0 "},
        {[] { return __i_pool_calloc(4, 16); }, "calloc 64 "},
        {[] { return __i_pool_calloc(0, 16); }, "calloc 0 "},
        {[] { return __i_pool_realloc(nullptr, 64); }, "realloc 64 "}};
    const auto expect_steps = [&] {
      for (const auto& step : steps)
        EXPECT_EQ(asked([&] { __i_pool_free(step.first()); }), step.second + "free ");
    };
    expect_steps();
    register_sizes({64, 32}, 0);
    register_sizes({128}, 1);
    expect_steps();
    char* block = nullptr;  // a product of 32 bits, too
    EXPECT_EQ(asked([&] { block = allocate(64, 0), __i_pool_calloc(0x10000008, 16); }),
              "malloc 1920000 malloc 3840000 ");
    expect_steps();
    EXPECT_EQ(asked([] { __i_pool_free(nullptr); }), "free another ");
    register_sizes({256}, 0);  // another list; the block is still its pool's
    EXPECT_EQ(asked([&] { __i_pool_free(block), allocate(64, 0), allocate(32, 0); }),
              "malloc 64 malloc 32 ");
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
  });
}

TEST(Pool, TakesFiftySizesAndOpensFiftyPools) {
  in_own_process([] {
    std::vector<std::uint32_t> sizes(60);  // no 0 at the end
    for (std::uint32_t i = 0; i < 60; ++i) sizes[i] = 100 + i;
    __i_pool_init(sizes.data(), 0);
    EXPECT_EQ(Last_PoolP, &work_pool[49]);
    std::vector<char*> blocks;
    for (std::uint32_t i = 0; i < 50; ++i)
      EXPECT_EQ(asked([&] { blocks.push_back(allocate(100 + i, 0)); }),
                "malloc " + std::to_string(30'000 * (100 + i)) + ' ');
    for (int i = 1; i < 30'000; ++i) blocks.push_back(allocate(100, 0));
    EXPECT_EQ(asked([&] { allocate(100, 0), allocate(150, 0); }), "malloc 100 malloc 150 ");
    free_all(blocks);
    EXPECT_EQ(allocate(100, 0), blocks[0]);  // a pool that was drained has room again
  });
}

// The smaller size moves: between pools, to the system, and from a zeroed pool to one that is not.
TEST(Pool, ReallocMovesTheSmallerSize) {
  in_own_process([] {
    register_sizes({64, 128}, 0);
    register_sizes({64}, 1);
    void* block = nullptr;
    const auto moved_to = [&](std::uint32_t size) {
      return asked([&] { block = __i_pool_realloc(block, size); });
    };
    asked([&] { block = std::memset(allocate(64, 0), 7, 64); });
    EXPECT_EQ(moved_to(128), "malloc 3840000 copy 64 ");
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
    EXPECT_EQ(moved_to(10), "malloc 10 copy 10 ");
    EXPECT_EQ(std::string(static_cast<char*>(block), 11), std::string(10, 7) + '\0');
    EXPECT_EQ(moved_to(64), "realloc 64 ");  // stays with the system
    asked([&] { block = __i_pool_calloc(1, 64); });
    EXPECT_EQ(moved_to(64), "copy 64 ");
    EXPECT_EQ(work_pool[0].handed_out.load_acquire(), 2u);
    the_system.fails = true;  // the old block stays the caller's
    EXPECT_EQ(moved_to(1000), "malloc 1000 ");
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
  });
}

// Without memory the answer is null, and the next request asks again, by the same descriptor. The
// bytes of a pool are a 32-bit signed product, taken to malloc as it is; where it wraps, the zero
// fill stays within what malloc was asked for.
TEST(Pool, AsksForItsBytesUntilItHasThem) {
  for (const int for_calloc : {0, 1})
    in_own_process([=] {
      register_sizes({71'582, 71'583, 143'166}, for_calloc);
      the_system.fails = true;
      for (const auto& [size, asks] : {std::pair{71'582u, "malloc 2147460000 "},
                                       std::pair{71'583u, "malloc 18446744071562074320 "}})
        for (int attempt = 0; attempt < 30; ++attempt)  // there are 50 descriptors
          EXPECT_EQ(asked([&, n = size] { EXPECT_EQ(allocate(n, for_calloc), nullptr); }), asks);
      the_system.fails = false;
      std::vector<char*> blocks(30'000);  // nearly all outside the memory: not touched
      const auto fill_up = [&] {
        for (char*& block : blocks) block = allocate(143'166, for_calloc);
      };
      EXPECT_EQ(asked([&] { fill_up(), free_all(blocks), fill_up(); }),
                std::string("malloc 12704 ") + (for_calloc != 0 ? "fill 12704 " : ""));
    });
}

// A lock keeps threads apart. They find no room, and then a drained pool, and wait for the lock, which
// thread 0 has for a while: the first to get it opens or starts a pool, and all take their blocks
// from that. Made a pool of a few blocks, nearly every request meets it being filled up, drained or
// started over by another thread. Each start clears all of it: a block that somebody still has would
// not keep its stamp, which names the owner. Blocks are freed by another thread than took them, and
// written with plain stores, so that the thread sanitizer sees every hand-over that the pool does not
// order. An index that was handed out to nobody would keep it from draining for good.
TEST(Pool, IsSharedByThreads) {
  in_own_process([] {
    using word = std::uint64_t;
    constexpr std::uint32_t threads = 4;
    register_sizes({64}, 1);
    mem::pool& p = work_pool[0];
    std::array<std::atomic<word*>, threads> shared{};
    std::barrier together(threads);
    std::uint32_t lock = 0, counted = 0;
    std::vector<std::thread> running;
    __fast_lock(&_i_pool_cr_sec);
    for (std::uint32_t self = 0; self < threads; ++self)
      running.emplace_back([&, self] {
        together.arrive_and_wait();
        for (int i = 0; i < 20'000; ++i) {
          __fast_lock(&lock);
          EXPECT_EQ(std::atomic_ref(lock).load(), 1u);
          ++counted;
          __fast_unlock(&lock);
        }
        for (int turn = 0; turn < 2; ++turn) {
          together.arrive_and_wait();
          if (self == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            __fast_unlock(&_i_pool_cr_sec);
          }
          shared[self] = reinterpret_cast<word*>(allocate(64, 1));
          together.arrive_and_wait();
          if (self != 0) continue;
          EXPECT_EQ(last_pool_num, 1u);
          EXPECT_EQ(p.handed_out.load_acquire(), threads);
          p.count = threads;  // full
          for (auto& block : shared) __i_pool_free(block.exchange(nullptr));
          __fast_lock(&_i_pool_cr_sec);
        }
        if (self == 0) {
          EXPECT_EQ(counted, threads * 20'000);
          p.count = 12;
          p.last = p.saved_base + std::size_t{64} * 11;
          last_pool_num = mem::max_pools;  // no more than this one
          __fast_unlock(&_i_pool_cr_sec);
        }
        together.arrive_and_wait();
        std::minstd_rand random(self + 1);
        for (word round = 1; round <= 300'000; ++round) {
          auto* const block = static_cast<word*>(__i_pool_calloc(8, 8));
          ASSERT_TRUE(std::all_of(block, block + 8, [](word w) { return w == 0; })) << "not zero";
          block[0] = block[7] = word{self} << 32 | round;
          word* const other = shared[random() % shared.size()].exchange(block);
          if (other == nullptr) continue;
          ASSERT_EQ(other[0], other[7]) << "two owners";
          other[0] = other[7] = round;
          __i_pool_free(other);
        }
      });
    for (std::thread& t : running) t.join();
    for (auto& left : shared) __i_pool_free(left.load());
    EXPECT_EQ(p.freed.load_acquire(), p.handed_out.load_acquire());
  });
}

}  // namespace
}  // namespace zorvac::test
