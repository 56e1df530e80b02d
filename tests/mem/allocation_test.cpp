// Tests the allocators and how they use the C library's: pools, which threads share, aligned
// blocks, zero-filled blocks; and the cookie. The linker redirects the library's calls of the
// system to this file (--wrap). They are recorded and answered here, so the answers are the same
// under a sanitizer's allocator.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <thread>

#include "mem/imalloc.h"
#include "support/bytes.h"
#include "support/child.h"
#include "support/registers.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

constexpr std::uint64_t is_mapped = 2;  // a bit of the C library's word before a block
constexpr std::size_t none = SIZE_MAX;

// The system's malloc. It gives each block its own region; the regions are in no order of address.
// A block is zero if it is marked as mapped, else it has been used. No block is larger than a
// region.
struct {
  std::string calls = {};  // its calls, and the fills
  bool is_real = false;    // calloc and free are the C library's own, which threads may call
  std::function<void()> at_work = [] {};  // runs inside malloc
  std::size_t offset = 16;                // of a block in its region
  std::uint64_t word_in_front = is_mapped;
  std::size_t written = none;  // index of a byte of the block that is not zero
  unsigned char* last = nullptr;

  void* give(const char* call, std::size_t bytes) {
    constexpr std::size_t regions = 64, region_bytes = 32 << 20;
    static void* const all = mmap(nullptr, regions * region_bytes, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    static std::size_t count = 0;
    calls += call + std::to_string(bytes) + ' ';
    at_work();
    if (bytes > region_bytes - offset) return nullptr;
    auto* const region = static_cast<unsigned char*>(all) + count++ * 21 % regions * region_bytes;
    madvise(region, region_bytes, MADV_DONTNEED);
    if ((word_in_front & is_mapped) == 0) std::memset(region, 0xcc, offset + bytes);
    last = region + offset;
    if (written != none) last[written] = 1;
    std::memcpy(last - sizeof word_in_front, &word_in_front, sizeof word_in_front);
    return last;
  }
} the_system;

extern "C" {
void* __real_calloc(std::size_t, std::size_t);
void __real_free(void*);
void* __real__zorva_fast_memset(void*, int, std::size_t);

void* calloc_without_malloc(std::size_t, std::size_t);  // fast calloc without a malloc

void* __wrap_malloc(std::size_t size) { return the_system.give("malloc ", size); }
void* __wrap_calloc(std::size_t n, std::size_t m) {
  return the_system.is_real ? __real_calloc(n, m) : the_system.give("calloc ", n * m);
}
void* __wrap_realloc(void*, std::size_t size) { return the_system.give("realloc ", size); }
void __wrap_free(void* block) {
  if (the_system.is_real) return __real_free(block);
  the_system.calls += block == the_system.last ? "free " : "free another ";
}
void* __wrap__zorva_fast_memset(void* to, int value, std::size_t bytes) {
  the_system.calls += "fill " + std::to_string(bytes) + ' ';
  return __real__zorva_fast_memset(to, value, bytes);
}
}

// The calls of the system that the library makes in `body`.
std::string asked(const std::function<void()>& body) {
  the_system.calls.clear();
  body();
  return the_system.calls;
}

// Runs a test's body in its own process, because pools stay for the life of a process. Failed
// expectations are in the output; SIGALRM ends a body that hangs.
void in_own_process(const std::function<void()>& body) {
  const outcome o = run_in_child([&] {
    alarm(30);
    body();
  });
  EXPECT_EQ(o, (outcome{"", "", 0, 0}));
}

// A request, and the calls of the system that it causes.
struct request {
  const char* text;
  void* (*make)();
  std::string asks;
};
#define REQUEST(call) #call, []() -> void* { return call; }

using sizes = std::initializer_list<std::uint32_t>;

std::uint32_t blocks_in_use() {
  std::uint32_t blocks = 0;
  for (auto& p : work_pool) blocks += p.handed_out.load_acquire() - p.freed.load_acquire();
  return blocks;
}

struct pool_kind {
  const char* name;
  std::uint32_t size, blocks;
  int for_calloc;               // not 0: the pool is zeroed
  std::uint64_t word_in_front;  // the word before its memory
  std::size_t written;
  bool cleared_at_first;  // a zeroed pool is also cleared each time it starts over
};

// Takes blocks of a pool until `blocks` has so many, and writes to each.
void take(const pool_kind& kind, std::vector<std::byte*>& blocks, std::size_t until) {
  const std::string zeros(kind.for_calloc != 0 ? kind.size : 0, 0);
  for (std::size_t i = blocks.size(); i < until; ++i) {
    void* const block = kind.for_calloc != 0 ? __i_pool_calloc(1, static_cast<int>(kind.size))
                                             : __i_pool_malloc(kind.size);
    blocks.push_back(static_cast<std::byte*>(block));
    ASSERT_EQ(block, blocks[0] + i * kind.size) << "block " << i;
    ASSERT_BYTES(bytes(block, zeros.size()), zeros) << "block " << i;
    std::memset(block, 0xff, kind.size);
  }
}

// Blocks come in order and are not reused one by one. A pool starts over with its first block when
// every block is free.
TEST(Pool, PassesThroughItsStates) {
  constexpr pool_kind kinds[] = {
      {"40 bytes", 40, 300'000, 0, 0, none, false},
      {"96 bytes", 96, 300'000, 0, is_mapped, none, false},
      {"zeroed", 64, 30'000, 1, is_mapped, none, false},
      {"zeroed, 48 bytes, in used memory", 48, 300'000, 8, 0, none, true},
      {"zeroed, in memory filled from its start", 64, 30'000, 1, is_mapped, 0, true},
      {"zeroed, in memory filled to its end", 64, 30'000, 1, is_mapped, 1'919'999, true},
  };
  for (const pool_kind& kind : kinds) {
    SCOPED_TRACE(kind.name);
    in_own_process([=] {
      the_system.word_in_front = kind.word_in_front;
      the_system.written = kind.written;
      __i_pool_init(sizes{kind.size, 0}.begin(), kind.for_calloc);
      const std::string bytes = std::to_string(kind.size * kind.blocks) + ' ';
      const std::string opened = "malloc " + bytes + (kind.cleared_at_first ? "fill " + bytes : "");
      const std::string started_over = kind.for_calloc != 0 ? "fill " + bytes : "";

      std::vector<std::byte*> first_pool;
      std::vector<std::byte*> second_pool;
      std::vector<std::byte*> again;
      EXPECT_EQ(asked([&] { take(kind, first_pool, kind.blocks); }), opened);
      for (std::size_t i = 1; i < kind.blocks; ++i) __i_pool_free(first_pool[i]);
      EXPECT_EQ(asked([&] { take(kind, second_pool, 1); }), opened) << "one block is in use";
      __i_pool_free(first_pool[0]);
      EXPECT_EQ(asked([&] { take(kind, second_pool, kind.blocks); }), "") << "it is used up first";
      EXPECT_EQ(asked([&] { take(kind, again, kind.blocks); }), started_over);
      EXPECT_EQ(again[0], first_pool[0]);
    });
  }
}

// For every block of all fifty pools its pool is found, and for the system's blocks none. The
// youngest pool that has room comes first.
TEST(Pool, FindsItsBlocksAndItsRoomAmongFifty) {
  in_own_process([] {
    constexpr pool_kind kind{"", 32, 30'000, 0, is_mapped, none, false};
    __i_pool_init(sizes{kind.size, 0}.begin(), 0);
    std::vector<std::vector<std::byte*>> taken(mem::max_pools);
    for (auto& blocks : taken) take(kind, blocks, kind.blocks);
    for (std::byte* outside : {taken[0][0] - 1, taken[7].back() + 1, taken[49].back() + kind.size})
      EXPECT_EQ(asked([=] { __i_pool_free(outside); }), "free another ");

    const auto drain = [&](std::size_t pool) {
      for (std::byte* block : taken[pool]) __i_pool_free(block);
    };
    const auto serves = [&](std::size_t pool, std::size_t block) {
      ASSERT_EQ(__i_pool_malloc(kind.size), taken[pool][block]) << pool << ", block " << block;
    };
    drain(10);
    serves(10, 0);
    drain(30);
    drain(20);
    for (const std::size_t youngest : {30u, 20u})
      for (std::size_t block = 0; block < kind.blocks; ++block) serves(youngest, block);
    serves(10, 1);
    for (std::size_t pool = 0; pool < mem::max_pools; ++pool) {
      __i_pool_free(taken[pool][2]);
      EXPECT_EQ(work_pool[pool].freed.load_acquire(), 1u) << "pool " << pool;
    }
  });
}

// Moves a block to another size. The block and the byte after it are full of sevens. In the new
// block, the bytes after the old size stay zero.
void* move(void* block, std::uint32_t old_size, std::uint32_t size) {
  const std::string expected = std::string(std::min(old_size, size), 7) + '\0';
  void* const moved = __i_pool_realloc(std::memset(block, 7, old_size + 1), size);
  EXPECT_BYTES(bytes(moved, expected.size()), expected);
  return moved;
}

// Requests that no pool serves go to the system. Reallocation moves the smaller of both sizes:
// between pools, to the system, and from a zeroed pool to one that is not.
TEST(Pool, AsksTheSystemForWhatIsNotRegistered) {
  in_own_process([] {
    __i_pool_init(sizes{64, 32, 0}.begin(), 0);
    __i_pool_init(sizes{64, 128, 0}.begin(), 1);
    const request requests[] = {
        {REQUEST(__i_pool_malloc(64)), "malloc 1920000 "},
        {REQUEST(__i_pool_malloc(128)), "malloc 128 free "},
        {REQUEST(__i_pool_malloc(0)), "malloc 0 free "},
        {REQUEST(__i_pool_calloc(1, 64)), "malloc 1920000 "},
        {REQUEST(__i_pool_calloc(4, 8)), "calloc 32 free "},
        {REQUEST(__i_pool_calloc(0x10000008, 16)), "malloc 3840000 "},  // 128 in 32 bits
        {REQUEST(__i_pool_realloc(nullptr, 64)), "realloc 64 free "},
        {REQUEST(__i_pool_realloc(__i_pool_malloc(65), 64)), "malloc 65 realloc 64 free "},
        {REQUEST(move(__i_pool_malloc(64), 64, 32)), "malloc 960000 "},
        {REQUEST(move(__i_pool_malloc(32), 32, 64)), ""},
        {REQUEST(move(__i_pool_malloc(64), 64, 128)), "malloc 128 free "},
        {REQUEST(move(__i_pool_calloc(1, 64), 64, 64)), ""},
    };
    for (const request& r : requests) {
      EXPECT_EQ(asked([&] { __i_pool_free(r.make()); }), r.asks) << r.text;
      EXPECT_EQ(blocks_in_use(), 0u) << r.text;
    }
    void* const block = __i_pool_malloc(64);
    EXPECT_EQ(__i_pool_realloc(block, 1 << 30), nullptr) << "the system has less memory";
    EXPECT_EQ(blocks_in_use(), 1u) << "it still belongs to the caller";

    __i_pool_init(sizes{256, 0}.begin(), 0);
    EXPECT_EQ(asked([] { __i_pool_malloc(64); }), "malloc 64 ") << "not in the new list";
    EXPECT_EQ(asked([] { __i_pool_malloc(32); }), "malloc 32 ") << "the list is shorter";
    EXPECT_EQ(asked([=] { __i_pool_free(block); }), "") << "it still belongs to its pool";
  });
}

// Without memory the answer is null, and the next request asks again with the same descriptor. The
// bytes of a pool are a 32-bit signed product, which malloc gets unchanged; where it wraps, the
// zero fill stays within the requested size. There are at most fifty sizes and fifty pools.
TEST(Pool, AsksForItsBytesUntilItHasThem) {
  in_own_process([] {
    std::vector<std::uint32_t> registered{71'582, 71'583, 143'166};
    for (std::uint32_t size = 100; size < 150; ++size) registered.push_back(size);  // and no 0
    __i_pool_init(registered.data(), 1);
    EXPECT_EQ(Last_PoolP, &work_pool[49]);
    const auto asked_for = [](int size) { return asked([=] { __i_pool_calloc(1, size); }); };
    EXPECT_EQ(__i_pool_calloc(1, 71'582), nullptr);
    for (int attempt = 0; attempt < 60; ++attempt)
      EXPECT_EQ(asked_for(71'582), "malloc 2147460000 ");
    EXPECT_EQ(asked_for(71'583), "malloc 18446744071562074320 ");
    for (int size = 100; size < 147; ++size)
      EXPECT_EQ(asked_for(size), "malloc " + std::to_string(30'000 * size) + ' ');
    EXPECT_EQ(asked_for(147), "calloc 147 ");
    std::vector<void*> blocks(30'000);  // nearly all outside the memory: not touched
    for (void*& block : blocks) block = __i_pool_calloc(1, 143'166);
    EXPECT_EQ(asked_for(143'166), "calloc 143166 ");
    for (void* block : blocks) __i_pool_free(block);
    EXPECT_EQ(asked_for(143'166), "fill 12704 ") << "a drained pool has room again";
  });
  in_own_process([] {
    __i_pool_init(sizes{143'166, 100, 0}.begin(), 1);
    EXPECT_NE(__i_pool_calloc(1, 143'166), nullptr) << "of a pool that does not fit its memory";
    EXPECT_EQ(asked([] { __i_pool_calloc(1, 100); }), "malloc 3000000 ");
  });
}

// A signal handler may fork when it interrupts a thread that holds the lock. In the child, too,
// that thread continues and releases the lock.
TEST(Pool, MayBeInterruptedByASignalHandlerThatForks) {
  in_own_process([] {
    static pid_t child;
    std::signal(SIGUSR1, [](int) {
      child = fork();
      alarm(30);
    });
    __i_pool_init(sizes{64, 32, 0}.begin(), 0);
    the_system.at_work = [] { std::raise(SIGUSR1); };
    EXPECT_EQ(asked([] { __i_pool_malloc(64); }), "malloc 1920000 ");
    the_system.at_work = [] {};
    EXPECT_EQ(asked([] { __i_pool_malloc(32); }), "malloc 960000 ");
    if (child == 0) return;
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "of the child";
  });
}

// Gives a pool so few blocks that it starts over all the time.
void shrink(mem::pool& p, std::uint32_t count) {
  p.count = count;
  p.last = p.base.load_acquire() + (count - 1) * p.size;
  last_pool_num = mem::max_pools;  // no further pool is opened
}

// A thread has counted a pool's last block as freed and waits for the lock to drain the pool; then
// another thread forks. The child does not have the waiting thread, so the child drains the pool
// itself. In the parent the waiting thread does it. A pool with a block in use is not drained.
TEST(PoolInAForkedChild, StartsOverWhereAThreadWasToDrainIt) {
  for (const std::uint32_t freed : {2u, 1u})
    in_own_process([=] {
      __i_pool_init(sizes{64, 0}.begin(), 1);
      void* const first = __i_pool_calloc(1, 64);
      shrink(work_pool[0], 2);
      __i_pool_calloc(1, 64);
      work_pool[0].freed.add(freed);
      in_own_process([=] { EXPECT_EQ(__i_pool_calloc(1, 64) == first, freed == 2) << freed; });
      EXPECT_EQ(work_pool[0].base.load_acquire(), first) << "in the parent";
    });
}

// The threads find no pool and wait for the lock. The first one that gets it opens a pool for all.
// Then the pool gets only a few blocks, so that nearly every request comes while another thread
// fills up, drains or restarts it. Each restart clears the whole pool, so a block that a thread
// still owns would lose the owner's stamp. Blocks are freed by another thread than the one that
// took them, and are written with plain stores, so the thread sanitizer sees every hand-over that
// the pool does not order. A block that was handed out to no thread would keep the pool from
// draining for ever.
//
// One of the threads forks. No child finds the lock taken, and all of its blocks are zero.
TEST(Pool, IsSharedByThreadsThatFork) {
  in_own_process([] {
    using word = std::uint64_t;
    constexpr word rounds_to_a_fork = sanitized ? SIZE_MAX : 3'000;  // its locks would stay locked
    const std::string zeros(64, 0);
    std::atomic<word*> shared[4] = {};
    const auto in_parallel = [](const auto& body) {
      std::vector<std::thread> running;
      for (std::uint32_t self = 0; self < 4; ++self) running.emplace_back(body, self);
      for (std::thread& thread : running) thread.join();
    };
    __i_pool_init(sizes{64, 0}.begin(), 1);
    __fast_lock(&_i_pool_cr_sec);
    in_parallel([&](std::uint32_t self) {
      if (self == 3) {
        usleep(20'000);
        EXPECT_EQ(last_pool_num, 0u) << "all wait for the lock";
        __fast_unlock(&_i_pool_cr_sec);
      }
      shared[self] = static_cast<word*>(__i_pool_calloc(8, 8));
    });
    EXPECT_EQ(work_pool[0].handed_out.load_acquire(), 4u);
    shrink(work_pool[0], 12);
    the_system.is_real = true;
    in_parallel([&](std::uint32_t self) {
      for (word round = 1; round <= 300'000; ++round) {
        auto* const block = static_cast<word*>(__i_pool_calloc(8, 8));
        ASSERT_BYTES(bytes(block, 64), zeros) << "round " << round;
        block[0] = block[7] = word{self} << 32 | round;
        if (self == 0 && round % rounds_to_a_fork == 0)
          in_own_process([&] {
            for (int i = 0; i < 100; ++i) EXPECT_BYTES(bytes(__i_pool_calloc(8, 8), 64), zeros);
          });
        word* const other = shared[(self + round) % 4].exchange(block);
        if (other == nullptr) continue;
        ASSERT_EQ(other[0], other[7]) << "two owners";
        other[0] = other[7] = round;
        __i_pool_free(other);
      }
    });
    for (auto& left : shared) __i_pool_free(left.load());
    EXPECT_EQ(blocks_in_use(), 0u);
  });
}

// The shared library with a malloc that fills its blocks, as with the tunable glibc.malloc.perturb.
// When the library is unloaded, its fork handlers are removed.
TEST(LoadedLibrary, ClearsItsPoolsAndLeavesNoForkHandlersBehind) {
  in_own_process([] {
    void* const library = dlopen(LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto init = reinterpret_cast<decltype(&__i_pool_init)>(dlsym(library, "__i_pool_init"));
    const auto calloc =
        reinterpret_cast<decltype(&__i_pool_calloc)>(dlsym(library, "__i_pool_calloc"));
    mallopt(M_PERTURB, 170);
    init(sizes{64, 0}.begin(), 1);
    EXPECT_BYTES(bytes(calloc(1, 64), 30'000 * 64), std::string(30'000 * 64, 0));
    in_own_process([] {});
    dlclose(library);
    EXPECT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    in_own_process([] {});
  });
}

// The shared library counts without locked instructions until the process has a second thread. A
// count that is lost afterwards gives one block to two threads.
TEST(LoadedLibrary, CountsBlocksOfSeveralThreads) {
  in_own_process([] {
    the_system.is_real = true;
    void* const library = dlopen(LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto init = reinterpret_cast<decltype(&__i_pool_init)>(dlsym(library, "__i_pool_init"));
    const auto take =
        reinterpret_cast<decltype(&__i_pool_malloc)>(dlsym(library, "__i_pool_malloc"));
    const auto give = reinterpret_cast<decltype(&__i_pool_free)>(dlsym(library, "__i_pool_free"));
    init(sizes{64, 0}.begin(), 0);
    give(take(64));
    const auto use_blocks = [&](int self) {
      for (int round = 0; round < (sanitized ? 20'000 : 200'000); ++round) {
        int* blocks[8];
        for (int*& block : blocks) *(block = static_cast<int*>(take(64))) = self;
        for (int* const block : blocks) {
          ASSERT_EQ(*block, self) << "two owners in round " << round;
          give(block);
        }
      }
    };
    std::thread second(use_blocks, 2);
    use_blocks(1);
    second.join();
  });
}

// malloc's memory may be at any multiple of 16. An alignment that is not a power of two is
// accepted: the block is inside the memory, at a multiple of the largest power of two that divides
// it.
TEST(AlignedBlock, IsAlignedWithinItsMemoryAndFreesThat) {
  for (const std::size_t alignment : {0u, 1u, 2u, 4u, 8u, 16u, 24u, 64u, 96u, 1024u, 65536u})
    for (the_system.offset = 16; the_system.offset < 2048; the_system.offset += 16) {
      SCOPED_TRACE(testing::Message() << alignment << ", malloc's block at " << the_system.offset);
      void* const block = zorvac_mm_malloc(7, alignment);
      const std::ptrdiff_t gap = static_cast<unsigned char*>(block) - the_system.last;
      EXPECT_GE(gap, 8);
      EXPECT_LE(gap, 8 + alignment);
      const std::size_t boundary = std::max<std::size_t>(alignment & -alignment, 8);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % boundary, 0u);
      EXPECT_EQ(asked([=] { zorvac_mm_free(block); }), "free ");
    }
  EXPECT_EQ(asked([] { zorvac_mm_free(nullptr); }), "");
}

// A request of zero-filled memory, with the place of malloc's block and the word before it.
void* fast_calloc_at(std::size_t offset, std::uint64_t word_in_front, std::size_t count) {
  the_system.offset = offset;
  the_system.word_in_front = word_in_front;
  void* const block = _zorva_fast_calloc(count, 33);
  EXPECT_BYTES(bytes(block, 17), std::string(17, 0));
  return block;
}

// Only a block that was mapped for this request is not filled. The word before it says so, but is
// not read where it is on the page before. The product of count and size may wrap; a sum that wraps
// is refused. The alignment is raised after that.
TEST(Allocation, GivesWhatMallocGivesOrNull) {
  const std::string all = "malloc " + std::to_string(SIZE_MAX) + ' ';
  const request requests[] = {
      {REQUEST(fast_calloc_at(16, 0x1002, 3)), "malloc 99 "},
      {REQUEST(fast_calloc_at(16, ~is_mapped, 3)), "malloc 99 fill 99 "},
      {REQUEST(fast_calloc_at(4096, is_mapped, 3)), "malloc 99 fill 99 "},
      {REQUEST(fast_calloc_at(16, 0x71, SIZE_MAX / 33 + 1)), "malloc 17 fill 17 "},
      {REQUEST(_zorva_fast_calloc(1, SIZE_MAX)), all},
      {REQUEST(calloc_without_malloc(1, 8)), ""},
      {REQUEST(zorvac_mm_malloc(SIZE_MAX - 4, 16)), ""},
      {REQUEST(zorvac_mm_malloc(10, SIZE_MAX - 5)), ""},
      {REQUEST(zorvac_mm_malloc(SIZE_MAX - 24, 16)), all},
      {REQUEST(zorvac_mm_malloc(SIZE_MAX - 9, 1)), all},
  };
  for (const request& r : requests) {
    the_system.last = nullptr;
    EXPECT_EQ(asked([&] { EXPECT_EQ(r.make(), the_system.last); }), r.asks) << r.text;
  }
}

// The check compares with the variable, which a program may set before it guards anything. When it
// returns, it has changed no register.
TEST(Cookie, AnyOtherValueEndsTheProcess) {
  EXPECT_NE(__zorva_security_cookie, 0u);
  EXPECT_EQ(__zorva_security_cookie >> 32, 0u);
  const auto end_of_check = [](std::uint64_t found) {
    return run_in_child([=] {
      __zorva_security_cookie = 42;
      __zorva_security_init_cookie();
      register_file before = filled_registers(1);
      before.general[rdi] = found;
      const auto check = reinterpret_cast<void (*)()>(&__zorva_security_check_cookie);
      const register_file after = call_with_registers(check, before);
      EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
    });
  };
  EXPECT_EQ(end_of_check(42), (outcome{"", "", 0, 0}));
  const outcome ended{"", "Error:  Buffer overrun occurred, forced exit\n", -1, SIGABRT};
  for (const std::uint64_t found : {0ul, 43ul, 42 | 1ul << 32, 42 | 1ul << 63})
    EXPECT_EQ(end_of_check(found), ended) << std::hex << found;
}

}  // namespace
}  // namespace zorvac::test
