// Pools in processes as they come: with threads that fork, with a malloc that fills what it gives,
// and in a library that is unloaded again. Here malloc is the C library's own.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "mem/imalloc.h"
#include "support/child.h"

namespace zorvac::test {
namespace {

constexpr unsigned child_seconds = 20;  // far more than a child needs that does not hang
constexpr std::uint32_t block_bytes = 1'000;

// Runs `body` in a child of fork, and tells how it ended. The children of run_in_child have no time
// limit.
std::string end_of_child(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(child_seconds);
    _exit(body() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return "no child";
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) return "hangs";
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "finishes" : "finds a wrong block";
}

void* request() { return __i_pool_calloc(1, block_bytes); }

// Whether a block is as it was asked for. Leaves it different, and free.
bool is_zero_and_mine(unsigned char* block) {
  if (std::count(block, block + block_bytes, 0) != block_bytes) return false;
  std::fill(block, block + block_bytes, 0xff);
  __i_pool_free(block);
  return true;
}

// The process's one pool, of so few blocks that it starts over all the time.
mem::pool& open_small_pool(std::uint32_t blocks) {
  __i_pool_init(std::array<std::uint32_t, 2>{block_bytes, 0}.data(), 1);
  void* const first = request();
  mem::pool& p = work_pool[0];
  p.count = blocks;
  p.last = p.base.load_acquire() + (blocks - 1) * block_bytes;
  last_pool_num = mem::max_pools;
  __i_pool_free(first);
  return p;
}

// Three threads keep a pool starting and draining, under its lock most of the time, while a fourth
// forks. No child finds the lock taken, and all of its blocks are zero.
TEST(PoolInAForkedChild, IsUsableWhateverOtherThreadsDid) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the address sanitizer's own malloc stays locked in such a child";
#endif
  const outcome o = run_in_child([] {
    open_small_pool(128);
    std::atomic<bool> done = false;
    const auto use_pool = [&] {
      while (!done) is_zero_and_mine(static_cast<unsigned char*>(request()));
    };
    std::array<std::thread, 3> users;
    for (std::thread& t : users) t = std::thread(use_pool);
    for (int child = 1; child <= 100 && !testing::Test::HasFailure(); ++child) {
      const std::string end = end_of_child([] {
        for (int i = 0; i < 1'000; ++i)
          if (!is_zero_and_mine(static_cast<unsigned char*>(request()))) return false;
        return true;
      });
      EXPECT_EQ(end, "finishes") << "child " << child;
    }
    done = true;
    for (std::thread& t : users) t.join();
  });
  EXPECT_EQ(o, (outcome{"", "", 0, 0}));
}

// A thread has counted a pool's last block and waits for the lock to drain the pool, when another
// one forks. The child, which does not have that thread, drains the pool; the parent leaves it to
// the thread. A pool with a block in use is not drained.
TEST(PoolInAForkedChild, StartsOverWhereAThreadWasToDrainIt) {
  for (const bool all_freed : {true, false}) {
    const outcome o = run_in_child([=] {
      mem::pool& p = open_small_pool(2);
      char* const base = p.base.load_acquire();
      EXPECT_EQ(request(), base + block_bytes);
      if (all_freed) p.freed.add(1);
      const std::string end = end_of_child([=] { return (request() == base) == all_freed; });
      EXPECT_EQ(end, "finishes") << (all_freed ? "all freed" : "a block in use");
      EXPECT_EQ(p.base.load_acquire(), base) << "in the parent";
    });
    EXPECT_EQ(o, (outcome{"", "", 0, 0}));
  }
}

// What the library has the C library call around a fork goes with it.
TEST(PoolInAForkedChild, ForksAfterTheLibraryIsUnloaded) {
  const outcome o = run_in_child([] {
    void* const library = dlopen(LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto init = reinterpret_cast<decltype(&__i_pool_init)>(dlsym(library, "__i_pool_init"));
    init(std::array<std::uint32_t, 2>{64, 0}.data(), 0);
    EXPECT_EQ(end_of_child([] { return true; }), "finishes") << "loaded";
    dlclose(library);
    EXPECT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(end_of_child([] { return true; }), "finishes") << "unloaded";
  });
  EXPECT_EQ(o, (outcome{"", "", 0, 0}));
}

// A pool of mapped memory, and one that is too small for that.
TEST(ZeroedPool, IsZeroThroughout) {
  for (const int size : {64, 1}) {
    const outcome o = run_in_child([=] {
      __i_pool_init(std::array<std::uint32_t, 2>{static_cast<std::uint32_t>(size), 0}.data(), 1);
      for (int block = 0; block < 30'000; ++block) {
        const auto* const bytes = static_cast<unsigned char*>(__i_pool_calloc(1, size));
        ASSERT_EQ(std::count(bytes, bytes + size, 0), size)
            << "size " << size << " block " << block;
      }
    });
    EXPECT_EQ(o, (outcome{"", "", 0, 0}));
  }
}

// The same where the C library fills every block that malloc gives.
TEST(ZeroedPool, IsZeroThroughoutWhereMallocFillsItsBlocks) {
  const outcome o = run_program({"env", "GLIBC_TUNABLES=glibc.malloc.perturb=170",
                                 std::filesystem::read_symlink("/proc/self/exe"),
                                 "--gtest_filter=ZeroedPool.IsZeroThroughout"});
  EXPECT_EQ(o.exit_status, 0) << o;
}

}  // namespace
}  // namespace zorvac::test
