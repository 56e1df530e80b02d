// What the allocators ask of the C library's, and what they make of it: pools, which threads share,
// aligned blocks, zero-filled blocks; and the cookie. The linker puts this file between them and
// the system (--wrap): what is asked while a test watches is written down and answered from here,
// so that it works the same under a sanitizer's allocator.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "mem/imalloc.h"
#include "support/child.h"
#include "support/registers.h"

// The same fast calloc in a program that has no malloc.
#define malloc absent_malloc
#define _zorva_fast_calloc calloc_without_malloc
#include "mem/fastcalloc.cpp"  // NOLINT(bugprone-suspicious-include)
#undef malloc
#undef _zorva_fast_calloc

namespace zorvac::test {

extern "C" {
void* __real_calloc(std::size_t, std::size_t);
void __real_free(void*);
void* __real__zorva_fast_memset(void*, int, std::size_t);
void* __real__zorva_fast_memcpy(void*, const void*, std::size_t);

// In front of a block of memory stands the word that the C library would put there; 2 marks one
// that was mapped for the purpose, and is zero. Nothing is taken back.
struct {
  bool watched = false, fails = false;
  std::uint64_t header = 2;
  std::size_t offset = 16;  // of a block in its page
  // A byte of a block that is not zero. Where the next blocks lie; anywhere in memory when empty.
  std::size_t written = SIZE_MAX;
  std::vector<unsigned char*> places = {};
  std::function<void()> at_work = [] {};
  unsigned char* last = nullptr;
  std::string asked = {};

  void note(const char* call, std::size_t bytes) { asked += call + std::to_string(bytes) + ' '; }
  void* give(const char* call, std::size_t bytes) {
    if (!watched) return __real_calloc(1, bytes);
    note(call, bytes);
    at_work();
    if (fails) return nullptr;
    auto* const map = places.empty() ? map_memory(offset + bytes) : places.back();
    if (!places.empty()) places.pop_back();
    if ((header & 2) == 0) std::memset(map, 0xcc, offset + bytes);  // used before
    if (written < bytes) map[offset + written] = 1;
    std::memcpy(map + offset - 8, &header, 8);
    return last = map + offset;
  }
  static unsigned char* map_memory(std::size_t bytes) {
    return static_cast<unsigned char*>(
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  }
} the_system;

void* __wrap_malloc(std::size_t size) { return the_system.give("malloc ", size); }
void* __wrap_calloc(std::size_t n, std::size_t m) { return the_system.give("calloc ", n * m); }
void* __wrap_realloc(void*, std::size_t size) { return the_system.give("realloc ", size); }
void __wrap_free(void* block) {
  if (!the_system.watched) return __real_free(block);
  the_system.asked += block == the_system.last ? "free " : "free another ";
}
void* __wrap__zorva_fast_memset(void* to, int value, std::size_t bytes) {
  the_system.note("fill ", bytes);
  return __real__zorva_fast_memset(to, value, bytes);
}
void* __wrap__zorva_fast_memcpy(void* to, const void* from, std::size_t bytes) {
  the_system.note("copy ", bytes);
  return __real__zorva_fast_memcpy(to, from, bytes);
}
}

namespace {

// What `body` makes the library ask for.
std::string asked(const std::function<void()>& body) {
  the_system.asked.clear();
  the_system.watched = true;
  body();
  the_system.watched = false;
  return the_system.asked;
}

// Runs a test's body in a process of its own, since pools stay for the life of a process. Failed
// expectations stand in the output.
void in_own_process(const std::function<void()>& body) {
  EXPECT_EQ(run_in_child(body), (outcome{"", "", 0, 0}));
}
using sizes = std::initializer_list<std::uint32_t>;

// Two pools of one kind through all states. Blocks come in order and are not reused one by one; a
// pool starts over, from its first block and all zero where it is to be, once every block is free.
TEST(Pool, LivesThroughItsStates) {
  constexpr struct {
    std::uint32_t size, blocks;
    int for_calloc, header;  // 2: the memory is fresh
  } kinds[] = {{64, 30'000, 0, 2},  {64, 30'000, 1, 2},  {48, 300'000, 1, 0},
               {96, 300'000, 0, 2}, {40, 300'000, 0, 2}, {1, 30'000, 9, 0}};
  for (const auto& k : kinds)
    in_own_process([&] {
      the_system.header = k.header != 0 ? 2 : 0;
      __i_pool_init(sizes{k.size, 0}.begin(), k.for_calloc);
      const std::string bytes = std::to_string(k.size * k.blocks) + ' ',
                        cleared = k.for_calloc != 0 ? "fill " + bytes : "",
                        opened = "malloc " + bytes + (k.header != 0 ? "" : cleared);
      const auto take = [&](std::vector<char*>& blocks, std::size_t n) {  // up to n blocks
        while (blocks.size() < n) {
          blocks.push_back(static_cast<char*>(k.for_calloc != 0
                                                  ? __i_pool_calloc(1, static_cast<int>(k.size))
                                                  : __i_pool_malloc(k.size)));
          char* const block = blocks.back();
          ASSERT_EQ(block, blocks[0] + (blocks.size() - 1) * k.size);
          ASSERT_TRUE(k.for_calloc == 0 || std::count(block, block + k.size, 0) == k.size);
          std::memset(block, 0xff, k.size);
        }
      };
      std::vector<char*> blocks, others, again;
      EXPECT_EQ(asked([&] { take(blocks, k.blocks); }), opened);
      std::shuffle(blocks.begin(), blocks.end(), std::minstd_rand(1));
      for (std::size_t i = 1; i < k.blocks; ++i) __i_pool_free(blocks[i]);
      // A second pool, though but one block is in use. It is used up first.
      EXPECT_EQ(asked([&] { take(others, 1); }), opened);
      __i_pool_free(blocks[0]);
      EXPECT_EQ(asked([&] { take(others, k.blocks), take(again, k.blocks); }), cleared);
      EXPECT_EQ(again[0], *std::min_element(blocks.begin(), blocks.end()));
    });
}

// All fifty pools of one size, in memory that lies in another order than the pools do. Every block
// is found to be its pool's, the system's blocks are not, and of the pools that have room the
// youngest comes first.
TEST(Pool, FindsItsBlocksAndItsRoomAmongFifty) {
  in_own_process([] {
    constexpr std::uint32_t size = 32, blocks = 30'000;
    constexpr std::size_t apart = std::size_t{1} << 20;
    unsigned char* const memory = the_system.map_memory(mem::max_pools * apart);
    for (std::size_t i = 0; i < mem::max_pools; ++i)
      the_system.places.push_back(memory + i * apart);
    std::shuffle(the_system.places.begin(), the_system.places.end(), std::minstd_rand(1));
    __i_pool_init(sizes{size, 0}.begin(), 0);
    std::vector<std::vector<char*>> taken(mem::max_pools);
    const auto take = [] { return static_cast<char*>(__i_pool_malloc(size)); };
    asked([&] {
      for (auto& of_pool : taken)
        for (std::uint32_t i = 0; i < blocks; ++i) of_pool.push_back(take());
    });
    EXPECT_EQ(asked([&] { __i_pool_free(take()); }), "malloc 32 free ") << "all are full";
    for (char* elsewhere : {taken[0][0] - 1, taken[7].back() + 1, taken[49].back() + size})
      EXPECT_EQ(asked([=] { __i_pool_free(elsewhere); }), "free another ");

    const auto drain = [&](std::size_t pool) {
      std::vector<char*> in_disorder = taken[pool];
      std::shuffle(in_disorder.begin(), in_disorder.end(), std::minstd_rand(2));
      for (char* block : in_disorder) __i_pool_free(block);
      EXPECT_EQ(work_pool[pool].base.load_acquire(), nullptr) << "pool " << pool;
    };
    drain(10);
    EXPECT_EQ(take(), taken[10][0]) << "the only pool with room";
    drain(30);
    drain(20);
    for (const std::size_t youngest : {30u, 20u})
      for (char* block : taken[youngest]) ASSERT_EQ(take(), block) << "pool " << youngest;
    EXPECT_EQ(take(), taken[10][1]) << "begun before the others were drained";
    for (std::size_t i = 0; i < mem::max_pools; ++i) {
      __i_pool_free(taken[i][2]);
      EXPECT_EQ(work_pool[i].freed.load_acquire(), 1u) << "pool " << i;
    }
  });
}

// Memory that was mapped for the pool but is not zero at one end, or both, was filled by malloc.
TEST(Pool, ClearsMappedMemoryThatMallocHasFilled) {
  const std::string opened = "malloc 1920000 ";
  const std::tuple<std::size_t, std::string> rows[] = {
      {SIZE_MAX, opened}, {0, opened + "fill 1920000 "}, {1'919'999, opened + "fill 1920000 "}};
  for (const auto& [written, asks] : rows)
    in_own_process([w = written, expected = asks] {
      __i_pool_init(sizes{64, 0}.begin(), 1);
      the_system.written = w;
      EXPECT_EQ(asked([] { __i_pool_calloc(1, 64); }), expected) << "byte " << w;
    });
}

// A signal handler may fork where it interrupts a thread that has the lock. In the child, too, that
// thread goes on and releases it.
TEST(Pool, MayBeInterruptedByASignalHandlerThatForks) {
  in_own_process([] {
    alarm(20);
    static pid_t child;
    std::signal(SIGUSR1, [](int) { child = fork(); });
    __i_pool_init(sizes{64, 32, 0}.begin(), 0);
    the_system.at_work = [] { std::raise(SIGUSR1); };
    EXPECT_EQ(asked([] { __i_pool_malloc(64); }), "malloc 1920000 ");
    the_system.at_work = [] {};
    EXPECT_EQ(asked([] { __i_pool_malloc(32); }), "malloc 960000 ");
    if (child == 0) std::fflush(nullptr), _exit(testing::Test::HasFailure());
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "of the child";
  });
}

// What pools do not serve goes to the system. The smaller size moves: between pools, to the system,
// and from a zeroed pool to one that is not.
TEST(Pool, ServesWhatIsRegistered) {
  in_own_process([] {
    __i_pool_init(sizes{64, 32, 0}.begin(), 0);
    __i_pool_init(sizes{64, 128, 0}.begin(), 1);
    void* block = nullptr;  // a product of 32 bits, too
    EXPECT_EQ(asked([&] { block = __i_pool_malloc(64), __i_pool_calloc(0x10000008, 16); }),
              "malloc 1920000 malloc 3840000 ");
    const std::pair<void* (*)(), std::string> requests[] = {
        {[] { return __i_pool_malloc(128); }, "malloc 128 free "},
        {[] { return __i_pool_malloc(0); }, "malloc 0 free "},
        {[] { return __i_pool_calloc(4, 8); }, "calloc 32 free "},
        {[] { return __i_pool_calloc(0, 16); }, "calloc 0 free "},
        {[] { return __i_pool_realloc(nullptr, 64); }, "realloc 64 free "},
        {[] { return static_cast<void*>(nullptr); }, "free another "}};
    for (const auto& [request, asks] : requests)
      EXPECT_EQ(asked([r = request] { __i_pool_free(r()); }), asks);

    const auto moved_to = [&](std::uint32_t size) {
      return asked([&] { block = __i_pool_realloc(block, size); });
    };
    std::memset(block, 7, 64);
    EXPECT_EQ(moved_to(32), "malloc 960000 copy 32 ");
    EXPECT_EQ(moved_to(128), "malloc 128 copy 32 ");
    EXPECT_EQ(std::string(static_cast<char*>(block), 33), std::string(32, 7) + '\0');
    EXPECT_EQ(moved_to(64), "realloc 64 ");  // stays with the system
    EXPECT_EQ(asked([&] { block = __i_pool_calloc(1, 64); }), "malloc 1920000 ");
    EXPECT_EQ(moved_to(64), "copy 64 ");
    the_system.fails = true;  // the old block stays the caller's
    EXPECT_EQ(moved_to(1000), "malloc 1000 ");
    EXPECT_EQ(block, nullptr);

    __i_pool_init(sizes{256, 0}.begin(), 0);  // another list; blocks are still their pools'
    EXPECT_EQ(asked([] { __i_pool_malloc(64), __i_pool_malloc(32); }), "malloc 64 malloc 32 ");
    EXPECT_EQ(work_pool[0].handed_out.load_acquire(), 2u);
    EXPECT_EQ(work_pool[0].freed.load_acquire(), 1u);
  });
}

// Without memory the answer is null, and the next request asks again, by the same descriptor. The
// bytes of a pool are a 32-bit signed product, taken to malloc as it is; where it wraps, the zero
// fill stays within what malloc was asked for. There are fifty sizes and fifty pools.
TEST(Pool, AsksForItsBytesUntilItHasThem) {
  in_own_process([] {
    std::vector<std::uint32_t> registered{71'582, 71'583, 143'166};
    for (std::uint32_t size = 100; size < 150; ++size) registered.push_back(size);  // and no 0
    __i_pool_init(registered.data(), 1);
    EXPECT_EQ(Last_PoolP, &work_pool[49]);
    const auto asked_for = [](int size) {
      return asked([=] { EXPECT_EQ(__i_pool_calloc(1, size) == nullptr, the_system.fails); });
    };
    the_system.fails = true;
    for (int attempt = 0; attempt < 60; ++attempt)
      EXPECT_EQ(asked_for(71'582), "malloc 2147460000 ");
    EXPECT_EQ(asked_for(71'583), "malloc 18446744071562074320 ");
    the_system.fails = false;
    for (int size = 100; size < 147; ++size)
      EXPECT_EQ(asked_for(size), "malloc " + std::to_string(30'000 * size) + ' ');
    EXPECT_EQ(asked_for(147), "calloc 147 ");
    std::vector<void*> blocks(30'000);  // nearly all outside the memory: not touched
    for (void*& block : blocks) block = __i_pool_calloc(1, 143'166);
    EXPECT_EQ(asked_for(143'166), "calloc 143166 ");
    for (void* block : blocks) __i_pool_free(block);
    EXPECT_EQ(asked_for(143'166), "fill 12704 ");  // a pool that was drained has room again
  });
}

// Threads wait for the lock, having found no pool, and then a drained one; the first to get it
// opens or starts one for all. Then that is made a pool of a few blocks, so that nearly every
// request meets it being filled up, drained or started over by another thread. Each start clears
// all of it: a block that somebody still has would not keep its stamp, which names the owner.
// Blocks are freed by another thread than took them, and written with plain stores, so that the
// thread sanitizer sees every hand-over that the pool does not order. An index that was handed out
// to nobody would keep it from draining for good.
TEST(Pool, IsSharedByThreads) {
  in_own_process([] {
    using word = std::uint64_t;
    std::atomic<word*> shared[4] = {};
    const auto in_parallel = [](const auto& body) {
      std::vector<std::thread> running;
      for (std::uint32_t self = 0; self < 4; ++self) running.emplace_back(body, self);
      for (std::thread& t : running) t.join();
    };
    __i_pool_init(sizes{64, 0}.begin(), 1);
    mem::pool& p = work_pool[0];
    for (int turn = 0; turn < 2; ++turn) {
      for (auto& block : shared) __i_pool_free(block.exchange(nullptr));
      __fast_lock(&_i_pool_cr_sec);
      in_parallel([&](std::uint32_t self) {
        if (self == 0) usleep(20'000), __fast_unlock(&_i_pool_cr_sec);
        if (self == 1) {
          __fast_lock(&_i_pool_cr_sec);
          EXPECT_EQ(std::atomic_ref(_i_pool_cr_sec).load(), 1u);
          __fast_unlock(&_i_pool_cr_sec);
        }
        shared[self] = static_cast<word*>(__i_pool_calloc(8, 8));
      });
      EXPECT_EQ(p.handed_out.load_acquire(), 4u);
      p.count = 4;  // full
    }
    p.count = 12;
    p.last = p.base.load_acquire() + 64 * 11;
    last_pool_num = mem::max_pools;  // no more than this one
    in_parallel([&](std::uint32_t self) {
      std::minstd_rand random(self + 1);
      for (word round = 1; round <= 300'000; ++round) {
        auto* const block = static_cast<word*>(__i_pool_calloc(8, 8));
        ASSERT_TRUE(std::all_of(block, block + 8, [](word w) { return w == 0; })) << "not zero";
        block[0] = block[7] = word{self} << 32 | round;
        word* const other = shared[random() % 4].exchange(block);
        if (other == nullptr) continue;
        ASSERT_EQ(other[0], other[7]) << "two owners";
        other[0] = other[7] = round;
        __i_pool_free(other);
      }
    });
    for (auto& left : shared) __i_pool_free(left.load());
    EXPECT_EQ(p.freed.load_acquire(), p.handed_out.load_acquire());
  });
}

// Wherever malloc's memory lies, at any multiple of 16. An alignment that is no power of two is not
// rejected: its block lies within the memory all the same, at a multiple of the power in it.
TEST(AlignedBlock, IsAlignedWithinItsMemoryAndFreesThat) {
  for (const std::size_t alignment : {0u, 1u, 2u, 4u, 8u, 16u, 24u, 64u, 96u, 1024u, 65536u})
    for (const std::size_t size : {0u, 1u, 7u, 8u, 24u, 63u, 64u, 1000u})
      for (the_system.offset = 16; the_system.offset < 2048; the_system.offset += 16 * (1 + size)) {
        unsigned char* block = nullptr;
        asked([&] { block = static_cast<unsigned char*>(zorvac_mm_malloc(size, alignment)); });
        ASSERT_GE(block, the_system.last + 8);
        ASSERT_LE(block, the_system.last + 8 + alignment);
        const std::size_t boundary = std::max<std::size_t>(alignment & -alignment, 8);
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % boundary, 0u);
        ASSERT_EQ(asked([&] { zorvac_mm_free(block); }), "free ");
      }
  EXPECT_EQ(asked([] { zorvac_mm_free(nullptr); }), "");
}

// Only a block that was mapped for the purpose is not filled, as the word in front of it tells,
// unless that lies on the page before. The product wraps.
TEST(FastCalloc, FillsWhatMallocHasNotJustMapped) {
  const std::tuple<std::size_t, std::uint64_t, std::size_t, std::string> rows[] = {
      {16, 0x1002, 3, "malloc 99 "},
      {16, ~std::uint64_t{2}, 3, "malloc 99 fill 99 "},
      {4096, 2, 3, "malloc 99 fill 99 "},
      {16, 0x71, SIZE_MAX / 33 + 1, "malloc 17 fill 17 "}};
  for (const auto& [offset, header, count, asks] : rows) {
    the_system.offset = offset, the_system.header = header;
    EXPECT_EQ(asked([n = count] { EXPECT_EQ(_zorva_fast_calloc(n, 33), the_system.last); }), asks);
    EXPECT_TRUE(count > 3 || std::count(the_system.last, the_system.last + 99, 0) == 99);
  }
}

TEST(Allocation, IsNullWhereSizesWrapOrMallocFails) {
  const std::string all = "malloc " + std::to_string(SIZE_MAX) + ' ';
  const std::pair<void* (*)(), std::string> refusals[] = {
      {[] { return zorvac_mm_malloc(SIZE_MAX - 4, 16); }, ""},  // the sum wraps
      {[] { return zorvac_mm_malloc(SIZE_MAX - 24, 16); }, all},
      {[] { return zorvac_mm_malloc(SIZE_MAX - 9, 1); }, all},  // the alignment is not yet raised
      {[] { return zorvac_mm_malloc(10, SIZE_MAX - 5); }, ""},
      {[] { return zorvac_mm_malloc(SIZE_MAX / 2 + 1, SIZE_MAX / 2 + 1); }, ""},
      {[] { return _zorva_fast_calloc(4, 4); }, "malloc 16 "},
      {[] { return calloc_without_malloc(1, 8); }, ""}};
  the_system.fails = true;
  for (const auto& [request, asks] : refusals)
    EXPECT_EQ(asked([r = request] { EXPECT_EQ(r(), nullptr); }), asks);
  the_system.fails = false;
}

// The check goes by the variable, which a program may have set before anything was guarded, and
// changes no register when it returns.
TEST(Cookie, AnyValueButTheVariablesEndsTheProcess) {
  EXPECT_TRUE(__zorva_security_cookie != 0 && __zorva_security_cookie >> 32 == 0);
  for (const std::uint64_t cookie : {__zorva_security_cookie, 42ul})
    for (const std::uint64_t change : {0ul, 1ul, 1ul << 32, 1ul << 63, cookie}) {
      const outcome o = run_in_child([=] {
        __zorva_security_cookie = cookie;
        __zorva_security_init_cookie();
        register_file before = filled_registers(1);
        before.general[rdi] = cookie ^ change;
        const auto check = reinterpret_cast<void (*)()>(&__zorva_security_check_cookie);
        const register_file after = call_with_registers(check, before);
        EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
        std::printf("returned");
      });
      const outcome ended{"", "Error:  Buffer overrun occurred, forced exit\n", -1, SIGABRT};
      EXPECT_EQ(o, change == 0 ? (outcome{"returned", "", 0, 0}) : ended) << std::hex << change;
    }
}

}  // namespace
}  // namespace zorvac::test
