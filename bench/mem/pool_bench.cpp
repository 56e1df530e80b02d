// Pooled blocks of 64 bytes beside the C library's malloc, mimalloc and jemalloc, in one process,
// on one thread and on several that share everything. Rows are <family>/<threads>/<contender>:
//
//   pair     allocates, writes the first word and frees, again and again
//   crowd    keeps 10,000 blocks; frees the oldest for each new one
//   handover frees what another thread allocated; with one thread, what it allocated earlier
//   foreign  pair with a block of the C library, which a program frees like a pool's block
//
// ZORVAC_BENCH_POOLS sets the pools of a process, and is part of the rows' names: nothing (one
// pool), 5 or 50 (as many sizes with a pool each, of which ours is the oldest), or "spent": all 50
// pools are of our size and full, so that the C library serves the requests.
//
// ZORVAC_BENCH_THREADS=several gives the rows of two and four threads instead of those of one.
// After a second thread has existed, the pools' counters and the C library's own allocator use
// locked instructions, so rows of one thread have a process of their own.
//
// Every contender is called through pointers, so each pays for the same indirect calls. mimalloc
// and jemalloc do not replace the C library's malloc: only their own names reach them, and the
// program refuses to measure if malloc is not the C library's.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <jemalloc/jemalloc.h>
#include <zorvac/mem.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/libc_peer.h"

namespace zorvac::bench {
namespace {

constexpr std::uint32_t block_bytes = 64;

struct allocator {
  std::string name;
  void* (*allocate)(std::size_t bytes);
  void (*release)(void* block);
};

void* touched(const allocator& from) {
  void* const block = from.allocate(block_bytes);
  *static_cast<volatile std::uint64_t*>(block) = 1;
  return block;
}

void pair(benchmark::State& state, const allocator& a) {
  for (auto _ : state) a.release(touched(a));
}

void crowd(benchmark::State& state, const allocator& a) {
  std::vector<void*> blocks(10'000);
  for (void*& block : blocks) block = touched(a);
  std::size_t oldest = 0;
  for (auto _ : state) {
    a.release(blocks[oldest]);
    blocks[oldest] = touched(a);
    if (++oldest == blocks.size()) oldest = 0;
  }
  for (void* block : blocks) a.release(block);
}

// Each thread puts its block in a slot and frees the one that was there, usually another thread's.
std::array<std::atomic<void*>, 256> slots;

void handover(benchmark::State& state, const allocator& a) {
  std::size_t slot = 0;
  for (auto _ : state) {
    void* const found = slots[slot].exchange(touched(a), std::memory_order_acq_rel);
    if (found != nullptr) a.release(found);
    slot = (slot + 1) % slots.size();
  }
  for (auto& left : slots)
    if (void* const block = left.exchange(nullptr)) a.release(block);
}

// Makes the pools, and returns their part of the rows' names.
std::string make_pools(const std::string& which) {
  std::vector<std::uint32_t> sizes = {block_bytes};
  const std::size_t count = which.empty() || which == "spent" ? 1 : std::stoul(which);
  while (sizes.size() < count) sizes.push_back(sizes.back() + 32);
  sizes.push_back(0);
  __i_pool_init(sizes.data(), 0);
  sizes.pop_back();
  for (const std::uint32_t size : sizes) __i_pool_malloc(size);
  if (which.empty()) return "";
  if (which != "spent") return '-' + which + "-pools";
  for (int block = 1; block < 50 * 30'000; ++block) __i_pool_malloc(block_bytes);
  return "-spent-pools";
}

void add_rows(const std::string& family, const std::string& pools,
              void (*work)(benchmark::State&, const allocator&),
              const std::vector<allocator>& allocators) {
  using thread_rows = std::vector<std::pair<int, const char*>>;
  const char* const set = std::getenv("ZORVAC_BENCH_THREADS");
  const thread_rows rows = set != nullptr && std::string(set) == "several"
                               ? thread_rows{{2, "/two-threads"}, {4, "/four-threads"}}
                               : thread_rows{{1, "/one-thread"}};
  for (const auto& [threads, row] : rows) {
    for (const allocator& a : allocators) {
      const std::string name = family + row + pools + '/' + a.name;
      benchmark::RegisterBenchmark(name.c_str(), [work, &a](benchmark::State& state) {
        work(state, a);
      })->Threads(threads);
    }
  }
}

std::string file_of(void* function) {
  Dl_info where{};
  return dladdr(function, &where) != 0 ? where.dli_fname : "";
}

std::vector<allocator> contenders() {
  void* const mimalloc = dlopen(MIMALLOC, RTLD_NOW | RTLD_LOCAL);
  if (mimalloc == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    std::exit(1);
  }
  const auto mi_malloc = reinterpret_cast<void* (*)(std::size_t)>(dlsym(mimalloc, "mi_malloc"));
  const auto mi_version = reinterpret_cast<int (*)()>(dlsym(mimalloc, "mi_version"));
  const auto mi_free = reinterpret_cast<void (*)(void*)>(dlsym(mimalloc, "mi_free"));
  for (void* const function :
       {reinterpret_cast<void*>(std::malloc), reinterpret_cast<void*>(std::free)}) {
    if (file_of(function).find("libc.so") == std::string::npos) {
      std::fprintf(stderr, "malloc is not the C library's\n");
      std::exit(1);
    }
  }
  const std::string digits = std::to_string(mi_version());  // 209 means 2.0.9
  record_libc();
  record_peer("mimalloc", digits.substr(0, 1) + '.' + digits[1] + '.' + digits.substr(2));
  const std::string release = JEMALLOC_VERSION;  // ends with a commit
  record_peer("jemalloc", release.substr(0, release.find('-')));
  return {{"zorvac",
           [](std::size_t bytes) { return __i_pool_malloc(static_cast<std::uint32_t>(bytes)); },
           __i_pool_free},
          {"libc", std::malloc, std::free},
          {"mimalloc", mi_malloc, mi_free},
          {"jemalloc", [](std::size_t bytes) { return mallocx(bytes, 0); },
           [](void* block) { dallocx(block, 0); }}};
}

}  // namespace
}  // namespace zorvac::bench

int main(int argc, char** argv) {
  using namespace zorvac::bench;
  const char* const which = std::getenv("ZORVAC_BENCH_POOLS");
  const std::string pools = make_pools(which != nullptr ? which : "");
  const std::vector<allocator> allocators = contenders();
  add_rows("pair", pools, pair, allocators);
  add_rows("crowd", pools, crowd, allocators);
  add_rows("handover", pools, handover, allocators);
  const std::vector<allocator> mixed = {{"zorvac", std::malloc, __i_pool_free},
                                        {"libc", std::malloc, std::free}};
  add_rows("foreign", pools, pair, mixed);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
