// Pools: order, new pools, draining and starting over, what goes to the system, what happens when it
// has no memory; and the same shared by threads, where every block has one owner at a time.
#include <algorithm>
#include <array>
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

// Two pools of one kind through all states. Blocks come in order and are not reused one by one; a
// pool starts over, from its first block and all zero where it is to be, once every block is free.
TEST(Pool, LivesThroughItsStates) {
  constexpr struct {
    std::uint32_t size, blocks;
    int for_calloc;
    std::uint64_t header;  // 2: the memory is fresh
  } kinds[] = {{64, 30'000, 0, 2},  {64, 30'000, 1, 2}, {40, 300'000, 0, 2}, {48, 300'000, 1, 0},
               {96, 300'000, 0, 2}, {56, 30'000, 9, 0}, {1, 30'000, 0, 0}};
  for (const auto& k : kinds)
    in_own_process([&] {
      the_system.header = k.header;
      register_sizes({k.size}, k.for_calloc);
      const std::string bytes = std::to_string(std::size_t{k.size} * k.blocks) + ' ',
                        opened = "malloc " + bytes, filled = k.for_calloc ? "fill " + bytes : "";
      const auto fill_up = [&](std::vector<char*>& blocks) {  // but for those taken already
        while (blocks.size() < k.blocks) blocks.push_back(allocate(k.size, k.for_calloc));
        for (std::size_t i = 0; i < blocks.size(); ++i) {
          ASSERT_EQ(blocks[i], blocks[0] + i * k.size);
          ASSERT_TRUE(k.for_calloc == 0 || std::count(blocks[i], blocks[i] + k.size, 0) == k.size);
          std::memset(blocks[i], 0xff, k.size);
        }
      };
      const std::string fresh = k.header != 0 ? "" : filled;
      std::vector<char*> blocks, others;
      EXPECT_EQ(asked([&] { fill_up(blocks); }), opened + fresh);
      char *const first = blocks[0], *const kept = blocks[5];
      std::shuffle(blocks.begin(), blocks.end(), std::minstd_rand(1));
      EXPECT_EQ(asked([&] {
                  for (char* block : blocks)
                    if (block != kept) __i_pool_free(block);
                  // A second pool, though but one block is in use. It comes first.
                  others.push_back(allocate(k.size, k.for_calloc));
                  __i_pool_free(kept);
                  fill_up(others);
                }),
                opened + fresh);
      blocks.clear();
      EXPECT_EQ(asked([&] { fill_up(blocks); }), filled);
      EXPECT_EQ(blocks[0], first);
    });
}

// What each step asks of the system.
TEST(Pool, LeavesToTheSystemWhatItDoesNotServe) {
  in_own_process([] {
    struct step {
      void* (*take)();
      const char* asks;
    };
    const step nothing_registered[] = {
        {[] { return __i_pool_malloc(64); }, "malloc 64 "},
        {[] { return __i_pool_calloc(4, 16); }, "calloc 64 "},
        {[] { return __i_pool_realloc(nullptr, 64); }, "realloc 64 "},
    };
    const step registered[] = {
        {[] { return __i_pool_malloc(65); }, "malloc 65 "},
        {[] { return __i_pool_malloc(128); }, "malloc 128 "},
        {[] { return __i_pool_malloc(0); }, "malloc 0 "},
        {[] { return __i_pool_calloc(4, 16); }, "calloc 64 "},
        {[] { return __i_pool_calloc(0, 16); }, "calloc 0 "},
        {[] { return __i_pool_realloc(nullptr, 64); }, "realloc 64 "},
    };
    const auto expect = [](const auto& steps) {
      for (const step& s : steps)
        EXPECT_EQ(asked([&] { __i_pool_free(s.take()); }), std::string(s.asks) + "free ");
    };
    expect(nothing_registered);
    register_sizes({64}, 0);
    register_sizes({128}, 1);
    expect(registered);
    EXPECT_EQ(asked([] { __i_pool_malloc(64), __i_pool_calloc(8, 16); }),
              "malloc 1920000 malloc 3840000 ");
    expect(registered);  // now with pools to search
    EXPECT_EQ(asked([] { __i_pool_free(nullptr); }), "free another ");

    // Another list for one kind: blocks of the old sizes are still their pools'.
    void* const block = __i_pool_malloc(64);
    register_sizes({256}, 0);
    EXPECT_EQ(asked([=] { __i_pool_free(block), __i_pool_malloc(64); }), "malloc 64 ");
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
  });
}

TEST(Pool, TakesFiftySizesAndOpensFiftyPools) {
  in_own_process([] {
    std::vector<std::uint32_t> sizes(60);  // no 0 at the end
    for (std::size_t i = 0; i < sizes.size(); ++i) sizes[i] = static_cast<std::uint32_t>(100 + i);
    __i_pool_init(sizes.data(), 0);
    EXPECT_EQ(Last_PoolP, &work_pool[49]);
    std::vector<void*> blocks;
    std::string pools;
    for (std::uint32_t i = 0; i < 50; ++i)
      pools += "malloc " + std::to_string(30'000 * sizes[i]) + ' ';
    EXPECT_EQ(asked([&] {
                for (std::uint32_t i = 0; i < 50; ++i) blocks.push_back(__i_pool_malloc(sizes[i]));
                for (int i = 1; i < 30'000; ++i) blocks.push_back(__i_pool_malloc(100));
                __i_pool_malloc(100);  // no room and no descriptor
                __i_pool_malloc(150);
              }),
              pools + "malloc 100 malloc 150 ");
    EXPECT_EQ(asked([&] {
                for (void* block : blocks) __i_pool_free(block);
                EXPECT_EQ(__i_pool_malloc(100),
                          blocks[0]);  // a pool that was drained has room again
              }),
              "");
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
    EXPECT_EQ(asked([&] { block = std::memset(__i_pool_malloc(64), 7, 64); }), "malloc 1920000 ");
    EXPECT_EQ(moved_to(128), "malloc 3840000 copy 64 ");
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
    EXPECT_EQ(moved_to(10), "malloc 10 copy 10 ");
    EXPECT_EQ(std::string(static_cast<char*>(block), 11), std::string(10, 7) + '\0');
    EXPECT_EQ(moved_to(64), "realloc 64 ");  // stays with the system
    EXPECT_EQ(asked([&] { block = __i_pool_calloc(1, 64); }), "malloc 1920000 ");
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
  constexpr struct {
    std::uint32_t size;
    const char* bytes;
  } rows[] = {{64, "1920000 "}, {71'582, "2147460000 "}, {71'583, "18446744071562074320 "}};
  for (const int for_calloc : {0, 1})
    in_own_process([=] {
      register_sizes({64, 71'582, 71'583, 143'166}, for_calloc);
      the_system.fails = true;
      for (const auto& r : rows)
        for (int attempt = 0; attempt < 30; ++attempt)  // of 50 descriptors
          EXPECT_EQ(asked([&] { EXPECT_EQ(allocate(r.size, for_calloc), nullptr); }),
                    std::string("malloc ") + r.bytes);
      the_system.fails = false;
      std::vector<char*> blocks(30'000);  // nearly all outside the memory: not touched
      EXPECT_EQ(
          asked([&] {
            for (char*& block : blocks) block = allocate(143'166, for_calloc);
            for (char* block : blocks) __i_pool_free(block);
            EXPECT_EQ(allocate(143'166, for_calloc), blocks[0]);
            allocate(64, for_calloc);
          }),
          std::string("malloc 12704 ") + (for_calloc ? "fill 12704 " : "") + "malloc 1920000 ");
    });
}

// Runs `work`, given the thread's number, in several threads that begin together.
constexpr std::uint32_t threads = 4;
template <class Work>
void at_once(Work work) {
  std::atomic<std::uint32_t> waiting = threads;
  std::vector<std::thread> running;
  for (std::uint32_t i = 0; i < threads; ++i)
    running.emplace_back([&waiting, &work, i] {
      for (--waiting; waiting > 0;) std::this_thread::yield();
      work(i);
    });
  for (std::thread& t : running) t.join();
}

// Threads find no room, or a drained pool, and wait for the lock, which thread 0 has for a while:
// the first to get it opens or starts a pool, and the others take their blocks from that.
TEST(PoolThreads, OneOpensOrStartsAPoolForAll) {
  in_own_process([] {
    register_sizes({8, 16, 24, 32, 56, 64, 72, 80}, 0);
    for (std::uint32_t turn = 0; turn < 24; ++turn) {
      mem::pool& p = work_pool[turn / 3];
      std::array<void*, threads> blocks{};
      __fast_lock(&_i_pool_cr_sec);
      at_once([&](std::uint32_t self) {
        if (self != 0) {
          blocks[self] = __i_pool_malloc(Array_size[turn / 3].load_relaxed());
        } else {
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
          __fast_unlock(&_i_pool_cr_sec);
        }
      });
      ASSERT_EQ(headerP.load_acquire(), &p);
      ASSERT_EQ(p.handed_out.load_acquire(), threads - 1);
      p.count = threads - 1;  // full
      for (std::uint32_t i = 1; i < threads; ++i) __i_pool_free(blocks[i]);
      ASSERT_EQ(p.base.load_acquire(), nullptr);
    }
  });
}

// Pools of a few blocks, so that nearly every request meets a pool that is being filled up, drained
// or started over by another thread. Each start clears the whole pool: a block that somebody still
// has would not keep its stamp, which names the owner. Blocks are passed on and freed by another
// thread than had them, and written with plain stores, so that the thread sanitizer sees every
// hand-over that the pools do not order. An index that was handed out to nobody would keep a pool
// from draining for good.
TEST(PoolThreads, StartPoolsOverUnderOneAnothersHands) {
  in_own_process([] {
    constexpr std::uint32_t pools = 6, blocks = 5;
    register_sizes({64}, 1);
    for (std::uint32_t i = 0; i < pools; ++i) {
      void* first = nullptr;
      asked([&] { first = __i_pool_calloc(1, 64); });
      work_pool[i].count = 1;  // full, and drained below: the next request opens another
      work_pool[i].last = work_pool[i].base.load_acquire() + std::size_t{64} * (blocks - 1);
    }
    last_pool_num = mem::max_pools;  // no more than these
    for (std::uint32_t i = 0; i < pools; ++i) {
      __i_pool_free(work_pool[i].base.load_acquire());
      work_pool[i].count = blocks;
    }
    using word = std::uint64_t;
    std::array<std::atomic<word*>, 8> shared{};
    at_once([&](std::uint32_t self) {
      std::minstd_rand random(self + 1);
      for (word round = 1; round <= 50'000; ++round) {
        auto* const block = static_cast<word*>(__i_pool_calloc(8, 8));
        ASSERT_TRUE(std::all_of(block, block + 8, [](word w) { return w == 0; })) << "not zero";
        const word stamp = word{self} << 32 | round;
        block[0] = block[7] = stamp;
        std::this_thread::yield();
        ASSERT_TRUE(block[0] == stamp && block[7] == stamp) << "two owners";
        word* const other = shared[random() % shared.size()].exchange(block);
        if (other == nullptr) continue;
        ASSERT_EQ(other[0], other[7]) << "two owners";
        other[0] = other[7] = 0;
        __i_pool_free(other);
      }
    });
    for (auto& left : shared) __i_pool_free(left.load());
    for (std::uint32_t i = 0; i < pools; ++i)
      EXPECT_EQ(work_pool[i].freed.load_acquire(), work_pool[i].handed_out.load_acquire()) << i;
  });
}

}  // namespace
}  // namespace zorvac::test
