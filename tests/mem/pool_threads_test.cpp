// Pools shared by threads: every block has one owner at a time, none is lost, and what one thread
// wrote before it freed a block is over when the next one gets it. Blocks are written with plain
// stores, so that the thread sanitizer sees every hand-over that the pools do not order.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "mem/allocator.h"
#include "mem/imalloc.h"

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

// Threads find no room, or a drained pool, and wait for the lock, which thread 0 has for a while:
// the first to get it opens or starts a pool, and the others take their blocks from that.
TEST(PoolThreads, OneOpensOrStartsAPoolForAll) {
  in_own_process([] {
    constexpr std::uint32_t waiting = threads - 1;
    register_sizes({8, 16, 24, 32, 56, 64, 72, 80}, 0);
    for (const std::uint32_t size : {8u, 16u, 24u, 32u, 56u, 64u, 72u, 80u}) {
      mem::pool& p = work_pool[last_pool_num];
      for (int turn = 0; turn < 3; ++turn) {
        std::array<void*, threads> blocks{};
        __fast_lock(&_i_pool_cr_sec);
        at_once([&](int self) {
          if (self != 0) {
            blocks[static_cast<std::size_t>(self)] = __i_pool_malloc(size);
          } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            __fast_unlock(&_i_pool_cr_sec);
          }
        });
        ASSERT_EQ(headerP.load_acquire(), &p);
        ASSERT_EQ(&work_pool[last_pool_num - 1], &p);
        ASSERT_EQ(p.handed_out.load_acquire(), waiting);
        p.count = waiting;  // full
        for (std::uint32_t i = 1; i <= waiting; ++i) __i_pool_free(blocks[i]);
        ASSERT_EQ(p.base.load_acquire(), nullptr);
      }
    }
  });
}

using word = std::uint64_t;

// Pools of a few blocks, so that nearly every request meets a pool that is being filled up, drained
// or started over by another thread. Each start writes the whole pool: a block that somebody still
// has would not keep its stamp, which names the owner. Some blocks are freed by another thread than
// had them. An index that was handed out to nobody would keep a pool from draining for good.
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

    std::array<std::atomic<word*>, 2> passed_on{};
    std::atomic<int> pooled = 0;
    at_once([&](int self) {
      std::minstd_rand random(static_cast<unsigned>(self) + 1);
      struct owned {
        word* block = nullptr;
        word stamp = 0;
      };
      std::array<owned, 4> mine{};
      int from_pools = 0;
      const auto give_up = [](const owned& o) {
        if (o.block == nullptr) return;
        ASSERT_EQ(o.block[0], o.stamp) << "two owners";
        ASSERT_EQ(o.block[7], o.stamp) << "two owners";
        o.block[0] = o.block[7] = 0;
        __i_pool_free(o.block);
      };
      for (int round = 0; round < 50'000; ++round) {
        owned& o = mine[random() % mine.size()];
        if (random() % 4 == 0) {
          o.block = passed_on[random() % passed_on.size()].exchange(o.block);
          if (o.block != nullptr) o.stamp = o.block[0];
        }
        give_up(o);
        auto* const block = static_cast<word*>(__i_pool_calloc(8, 8));
        ASSERT_TRUE(std::all_of(block, block + 8, [](word w) { return w == 0; })) << "not zero";
        o = {block, static_cast<word>(self + 1) << 32 | static_cast<word>(round)};
        block[0] = block[7] = o.stamp;
        for (std::uint32_t i = 0; i < pools; ++i) {
          const auto* const base = reinterpret_cast<word*>(work_pool[i].base.load_acquire());
          from_pools += base != nullptr && block >= base && block < base + std::size_t{8} * blocks;
        }
      }
      for (const owned& o : mine) give_up(o);
      pooled += from_pools;
    });
    for (auto& left : passed_on) __i_pool_free(left.load());
    for (std::uint32_t i = 0; i < pools; ++i)
      EXPECT_EQ(work_pool[i].freed.load_acquire(), work_pool[i].handed_out.load_acquire()) << i;
    EXPECT_GT(pooled, 1000);  // of 30 blocks: started over many times
  });
}

}  // namespace
}  // namespace zorvac::test
