// The pool allocator: blocks of a few registered sizes, handed out in order and never reused one by
// one. A pool starts over when all of its blocks have been freed.
//
// One lock guards everything rare: registration, new pools, draining, starting over. The two
// frequent steps take none: a block is handed out by one compare-and-swap on the pool's counter,
// and freed by one addition to another. docs/pool.md has the states and the proof.
#include "mem/imalloc.h"

#include <cstdlib>

#include "mem/block_header.h"

using zorvac::mem::max_pools;
using zorvac::mem::max_sizes;
using zorvac::mem::pool;
using zorvac::mem::size_list;

extern "C" {
constinit pool work_pool[max_pools];
constinit size_list Array_size;
constinit size_list Array_size_calloc;
constinit zorvac::atomic<pool*> headerP;
std::uint32_t last_pool_num;
pool* Last_PoolP;
std::uint32_t _i_pool_cr_sec;
}

namespace {

constexpr std::uint32_t usual_count = 30'000;
constexpr std::uint32_t large_count = 300'000;  // for the sizes of small, very frequent objects

std::uint32_t count_for(std::uint32_t size) {
  return size == 40 || size == 48 || size == 96 ? large_count : usual_count;
}

class global_lock {
 public:
  global_lock() { __fast_lock(&_i_pool_cr_sec); }
  ~global_lock() { __fast_unlock(&_i_pool_cr_sec); }
  global_lock(const global_lock&) = delete;
  global_lock& operator=(const global_lock&) = delete;
};

// Size 0, which ends the list, is never in it.
bool is_registered(const size_list& sizes, std::uint32_t size) {
  for (const auto& entry : sizes) {
    const std::uint32_t registered = entry.load_relaxed();
    if (registered == 0) return false;
    if (registered == size) return true;
  }
  return false;
}

// A descriptor that is in no list yet.
void prepare(pool& p, std::uint32_t size, std::uint32_t count, std::uint32_t zeroed) {
  p.size = size;
  p.count = count;
  p.zeroed = zeroed;
  p.saved_base = nullptr;
  p.last = nullptr;
  p.base.store_relaxed(nullptr);
  p.handed_out.store_relaxed(0);
  p.freed.store_relaxed(0);
}

// Puts a pool without memory at the head of the list. Under the global lock; not all are taken.
pool& add_pool(std::uint32_t size, std::uint32_t zeroed) {
  pool& p = work_pool[last_pool_num++];
  prepare(p, size, count_for(size), zeroed);
  p.next = headerP.load_relaxed();
  headerP.store_release(&p);
  return p;
}

// Starts a drained or new pool and returns its first block. Under the global lock.
//
// A new pool takes its memory from malloc. Where malloc has none, null is the answer, and the pool
// stays without: the next request of its size comes here again.
//
// The counter of handed-out blocks is stored last: a thread that read `base` before the pool was
// drained may take the second block as soon as it sees that counter, so all else is done.
[[gnu::noinline, gnu::cold]] char* start(pool& p) {
  // A 32-bit signed product; a negative one is more than malloc will ever give.
  const auto bytes = static_cast<std::size_t>(static_cast<std::int32_t>(p.count * p.size));
  char* memory = p.saved_base;
  bool is_zero = false;
  if (memory == nullptr) {
    memory = static_cast<char*>(std::malloc(bytes));
    if (memory == nullptr) return nullptr;
    is_zero = zorvac::mem::is_fresh(memory);
    p.last = memory + std::size_t{p.size} * (p.count - 1);
  }
  if (p.zeroed != 0 && !is_zero) _zorva_fast_memset(memory, 0, bytes);
  p.freed.store_relaxed(0);
  p.base.store_release(memory);
  p.handed_out.store_release(1);
  return memory;
}

// The index of the next block, now the caller's, or the count of a pool that is full.
std::uint32_t take_next(pool& p) {
  std::uint32_t index = p.handed_out.load_relaxed();
  while (index < p.count && !p.handed_out.try_replace_acquire(index, index + 1)) {
  }
  return index;
}

// The next block of the first pool from `p` on that has one. Null at the end of the list, where p
// is null then, and at a drained pool, where p stays.
[[gnu::always_inline]] inline char* take_from(pool*& p, std::uint32_t size, std::uint32_t zeroed) {
  for (; p != nullptr; p = p->next) {
    if (p->size != size || p->zeroed != zeroed) continue;
    char* const base = p->base.load_acquire();
    if (base == nullptr) return nullptr;
    const std::uint32_t index = take_next(*p);
    if (index < p->count) return base + std::size_t{index} * size;
  }
  return nullptr;
}

// A block from the first pool that has one or is drained, from a new pool, or from the system.
template <class System>
[[gnu::noinline]] void* allocate_with_lock(std::uint32_t size, std::uint32_t zeroed,
                                           System from_system) {
  for (;;) {
    pool* const head = headerP.load_acquire();
    for (pool* p = head;;) {
      if (char* const block = take_from(p, size, zeroed)) return block;
      if (p == nullptr) break;
      const global_lock held;
      if (p->base.load_relaxed() == nullptr) return start(*p);
    }
    const global_lock held;
    if (headerP.load_relaxed() != head) continue;  // a new pool: it may have room
    if (last_pool_num < max_pools) return start(add_pool(size, zeroed));
    break;
  }
  return from_system();
}

// Nearly every request ends at the first pool of its size, and this much needs no stack frame.
template <class System>
[[gnu::always_inline]] inline void* allocate(const size_list& sizes, std::uint32_t size,
                                             std::uint32_t zeroed, System from_system) {
  if (!is_registered(sizes, size)) return from_system();
  pool* p = headerP.load_acquire();
  if (char* const block = take_from(p, size, zeroed)) return block;
  return allocate_with_lock(size, zeroed, from_system);
}

// The pool that `block` belongs to, or null.
[[gnu::always_inline]] inline pool* pool_of(const void* block) {
  const auto address = reinterpret_cast<std::uintptr_t>(block);
  for (pool* p = headerP.load_acquire(); p != nullptr; p = p->next) {
    const auto base = reinterpret_cast<std::uintptr_t>(p->base.load_acquire());
    if (base == 0) continue;
    if (address >= base && address <= reinterpret_cast<std::uintptr_t>(p->last)) return p;
  }
  return nullptr;
}

[[gnu::noinline, gnu::cold]] void drain(pool& p) {
  const global_lock held;
  char* const base = p.base.load_relaxed();
  if (base == nullptr) return;
  p.saved_base = base;
  p.base.store_relaxed(nullptr);
}

}  // namespace

extern "C" {

void __fast_lock(std::uint32_t* lock) {
  while (__atomic_exchange_n(lock, 1, __ATOMIC_ACQUIRE) != 0)
    while (__atomic_load_n(lock, __ATOMIC_RELAXED) != 0) {
    }
}

// An exchange, and so a full barrier; for less, clang would make it a plain store.
void __fast_unlock(std::uint32_t* lock) { __atomic_exchange_n(lock, 0, __ATOMIC_SEQ_CST); }

// Descriptors in the list keep what they have: their blocks are in the program's hands.
void __i_pool_init(const std::uint32_t* sizes, int for_calloc) {
  const global_lock held;
  size_list& registered = for_calloc != 0 ? Array_size_calloc : Array_size;
  std::uint32_t n = 0;
  for (; n < max_sizes && sizes[n] != 0; ++n) {
    registered[n].store_relaxed(sizes[n]);
    Last_PoolP = &work_pool[n];
    if (n >= last_pool_num) prepare(work_pool[n], sizes[n], usual_count, for_calloc != 0);
  }
  if (n < max_sizes) registered[n].store_relaxed(0);
  for (; n < max_pools; ++n)
    if (n >= last_pool_num) work_pool[n].next = nullptr;
}

void* __i_pool_malloc(std::uint32_t size) {
  return allocate(Array_size, size, 0, [size] { return std::malloc(size); });
}

void* __i_pool_calloc(int count, int size) {
  const auto bytes = static_cast<std::uint32_t>(count) * static_cast<std::uint32_t>(size);
  return allocate(Array_size_calloc, bytes, 1, [count, size] {
    return std::calloc(static_cast<std::size_t>(count), static_cast<std::size_t>(size));
  });
}

void* __i_pool_realloc(void* block, std::uint32_t size) {
  const pool* const old = pool_of(block);
  if (old == nullptr) return std::realloc(block, size);
  void* const moved = __i_pool_malloc(size);
  if (moved == nullptr) return nullptr;
  _zorva_fast_memcpy(moved, block, size < old->size ? size : old->size);
  __i_pool_free(block);
  return moved;
}

void __i_pool_free(void* block) {
  pool* const p = pool_of(block);
  if (p == nullptr) {
    std::free(block);
  } else if (p->freed.add(1) == p->count) {
    drain(*p);
  }
}
}
