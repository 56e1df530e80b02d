// Pools shared by threads: every block has one owner at a time, none is lost, and what one thread
// wrote before it freed a block is over when the next one gets it. Blocks are written with plain
// stores, so that the thread sanitizer sees every hand-over that the pools do not order.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <thread>

#include "mem/imalloc.h"
#include "mem/pools.h"

namespace zorvac::test {
namespace {

constexpr int threads = 4;

// Runs `work`, given the thread's number, in several threads that begin together.
template <class Work>
void at_once(Work work) {
  std::atomic<int> waiting = threads;
  std::vector<std::thread> running;
  for (int i = 0; i < threads; ++i)
    running.emplace_back([&waiting, &work, i] {
      for (--waiting; waiting > 0;) std::this_thread::yield();
      work(i);
    });
  for (std::thread& t : running) t.join();
}

TEST(FastLock, KeepsThreadsApart) {
  std::uint32_t lock = 0;
  int counter = 0;
  at_once([&](int) {
    for (int i = 0; i < 20'000; ++i) {
      __fast_lock(&lock);
      EXPECT_EQ(std::atomic_ref(lock).load(), 1u);
      ++counter;
      __fast_unlock(&lock);
    }
  });
  EXPECT_EQ(counter, threads * 20'000);
  EXPECT_EQ(lock, 0u);
}

TEST(PoolThreads, ShareOnePoolWithoutGapsOrDoubles) {
  in_own_process([] {
    register_sizes({64}, 0);
    constexpr int each = 2 * 30'000 / threads;
    std::array<std::vector<char*>, threads> taken;
    at_once([&taken](int self) {
      for (int i = 0; i < each; ++i)
        taken[static_cast<std::size_t>(self)].push_back(static_cast<char*>(__i_pool_malloc(64)));
    });
    EXPECT_EQ(last_pool_num, 2u);
    for (const std::uint32_t pool : {0u, 1u}) {
      char* const base = work_pool[pool].base.load_acquire();
      std::vector<int> owners(30'000, 0);
      for (const std::vector<char*>& blocks : taken) {
        char* previous = nullptr;
        for (char* block : blocks) {
          if (block < base || block > work_pool[pool].last) continue;
          ASSERT_EQ((block - base) % 64, 0);
          ASSERT_GT(block, previous);  // in order, for each thread
          previous = block;
          ++owners[static_cast<std::size_t>(block - base) / 64];
        }
      }
      EXPECT_EQ(owners, std::vector<int>(30'000, 1)) << pool;
    }
  });
}

TEST(PoolThreads, OpenOnePoolASize) {
  in_own_process([] {
    std::vector<std::uint32_t> sizes;
    for (std::uint32_t size = 1; size <= 50; ++size) sizes.push_back(size * 8);
    register_sizes(sizes, 0);
    for (std::uint32_t pools = 1; pools <= 50; ++pools) {
      at_once([pools](int) { EXPECT_NE(__i_pool_malloc(pools * 8), nullptr); });
      ASSERT_EQ(last_pool_num, pools);
      ASSERT_EQ(work_pool[pools - 1].handed_out.load_acquire(), static_cast<unsigned>(threads));
    }
  });
}

// A block's first word names its owner while it has one.
using word = std::uint64_t;
constexpr word mark = 0x5afe'0000'0000'0000;
constexpr word stamp(int thread, int number) {
  return mark | static_cast<word>(thread) << 32 | static_cast<word>(number);
}
bool is_stamp(word w) { return (w & 0xffff'0000'0000'0000) == mark; }
void expect_every_block_counted(std::uint32_t pools) {
  for (std::uint32_t i = 0; i < pools; ++i)
    EXPECT_EQ(work_pool[i].freed.load_acquire(), work_pool[i].handed_out.load_acquire()) << i;
}
void give_up(word* block) {
  *block = 0;
  __i_pool_free(block);
}

// Each thread keeps some hundred blocks, replaces them at random and gives some to other threads.
TEST(PoolThreads, HaveEveryBlockToThemselves) {
  in_own_process([] {
    register_sizes({64, 72}, 0);
    constexpr int rounds = 100'000;
    std::array<std::atomic<word*>, 64> passed_on{};
    at_once([&passed_on](int self) {
      struct owned {
        word* block = nullptr;
        word stamp = 0;
      };
      std::vector<owned> mine(300);
      std::minstd_rand random(static_cast<unsigned>(self) + 1);
      for (int round = 0; round < rounds; ++round) {
        auto* const block = static_cast<word*>(__i_pool_malloc(random() % 2 == 0 ? 64 : 72));
        ASSERT_NE(block, nullptr);
        ASSERT_FALSE(is_stamp(*block)) << "two owners";
        *block = stamp(self, round);
        if (random() % 4 == 0) {
          word* const other = passed_on[random() % passed_on.size()].exchange(block);
          if (other == nullptr) continue;
          ASSERT_TRUE(is_stamp(*other));
          give_up(other);
        } else {
          owned& o = mine[random() % mine.size()];
          if (o.block != nullptr) {
            ASSERT_EQ(*o.block, o.stamp);
            give_up(o.block);
          }
          o = {block, stamp(self, round)};
        }
      }
      for (const owned& o : mine)
        if (o.block != nullptr) give_up(o.block);
    });
    for (auto& left : passed_on)
      if (word* const block = left) give_up(block);
    // 400,000 blocks from fewer pools than would hold them: pools were drained and started over.
    EXPECT_LT(last_pool_num, 12u);
    expect_every_block_counted(last_pool_num);
  });
}

// Pools of a few blocks, so that nearly every request meets a pool that is being filled up, drained
// or started over by another thread. Each start writes the whole pool: a block that somebody still
// has would not keep its stamp.
TEST(PoolThreads, StartPoolsOverUnderOneAnothersHands) {
  in_own_process([] {
    register_sizes({64}, 1);
    constexpr std::uint32_t pools = 6, blocks = 5;
    std::vector<void*> firsts;
    for (std::uint32_t i = 0; i < pools; ++i) {
      firsts.push_back(__i_pool_calloc(1, 64));
      work_pool[i].count = 1;  // full: the next request opens another
    }
    for (std::uint32_t i = 0; i < pools; ++i) {
      work_pool[i].count = blocks;
      work_pool[i].last = work_pool[i].base.load_acquire() + std::size_t{64} * (blocks - 1);
    }
    last_pool_num = mem::max_pools;  // no more than these
    for (void* block : firsts) __i_pool_free(block);

    std::atomic<int> pooled = 0;
    at_once([&pooled](int self) {
      std::minstd_rand random(static_cast<unsigned>(self) + 1);
      std::array<word*, 4> mine{};
      int from_pools = 0;
      for (int round = 0; round < 50'000; ++round) {
        word*& block = mine[random() % mine.size()];
        if (block != nullptr) {
          ASSERT_EQ(block[0], stamp(self, 1));
          ASSERT_EQ(block[7], stamp(self, 7));
          give_up(block);
        }
        block = static_cast<word*>(__i_pool_calloc(8, 8));
        ASSERT_TRUE(std::all_of(block, block + 8, [](word w) { return w == 0; })) << "not zero";
        block[0] = stamp(self, 1);
        block[7] = stamp(self, 7);
        for (std::uint32_t i = 0; i < pools; ++i) {
          const auto* const base = reinterpret_cast<word*>(work_pool[i].base.load_acquire());
          from_pools += base != nullptr && block >= base && block < base + std::size_t{8} * blocks;
        }
      }
      for (word* block : mine)
        if (block != nullptr) give_up(block);
      pooled += from_pools;
    });
    expect_every_block_counted(pools);
    EXPECT_GT(pooled, 1000);  // of 30 blocks: started over many times
  });
}

}  // namespace
}  // namespace zorvac::test
