// Pooled blocks of 64 bytes beside the C library's malloc, mimalloc and jemalloc, in one process,
// on one thread and on two that share everything. Rows are <family>/<threads>/<contender>:
//
//   pair     allocates, writes the first word and frees, again and again
//   crowd    keeps 10,000 blocks; frees the oldest for each new one
//   handover frees what another thread allocated; with one thread, what it allocated a while ago
//
// Every contender is called through pointers, so each pays for the same indirect calls. mimalloc
// and jemalloc stand beside the C library's malloc, not in its place: both are reached by their own
// names alone, and the program refuses to measure where malloc is not the C library's.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <zorvac/mem.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" {
void* mallocx(std::size_t bytes, int flags);
void dallocx(void* block, int flags);
}

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

// Each thread leaves its block in a slot and frees the one that was there, most likely another's.
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

// Once the process has had a second thread the C library's own allocator takes other paths on some
// occasions, so rows with one thread may differ by what ran before; interleaving evens that out.
void add_rows(const char* family, void (*work)(benchmark::State&, const allocator&),
              const std::vector<allocator>& allocators) {
  for (const int threads : {1, 2}) {
    for (const allocator& a : allocators) {
      const std::string name =
          std::string(family) + (threads == 1 ? "/one-thread/" : "/two-threads/") + a.name;
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
  const auto mi_free = reinterpret_cast<void (*)(void*)>(dlsym(mimalloc, "mi_free"));
  for (void* const function :
       {reinterpret_cast<void*>(std::malloc), reinterpret_cast<void*>(std::free)}) {
    if (file_of(function).find("libc.so") == std::string::npos) {
      std::fprintf(stderr, "malloc is not the C library's\n");
      std::exit(1);
    }
  }
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
  const std::uint32_t sizes[] = {block_bytes, 0};
  __i_pool_init(sizes, 0);
  const std::vector<allocator> allocators = contenders();
  add_rows("pair", pair, allocators);
  add_rows("crowd", crowd, allocators);
  add_rows("handover", handover, allocators);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
