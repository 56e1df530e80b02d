// The pool allocator. It hands out blocks of a few registered sizes in order, and never reuses a
// single block: a pool starts over when all of its blocks have been freed.
//
// One lock guards everything that is rare: registration, new pools, draining, starting over. The
// two frequent steps take no lock: one compare-and-swap on a counter of the pool hands out a block,
// and one addition to another counter frees it. Neither step walks the list of pools: each
// registered size has a pointer to its first pool with room, and a table in order of address gives
// the pool of a block. docs/pool.md has the states and the proof.
#include "mem/imalloc.h"

#include <cstdlib>

#include "mem/block_header.h"
#include "mem/fork.h"
#include "mem/single_threaded.h"

using zorvac::mem::address_table;
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

// Placeholders where there is no pool: no request has their size 0, and no address lies in them.
constinit pool not_known;
constinit pool none_left;

// For each registered size, in the order of the list of sizes: the first pool in the list of pools
// that has room; not_known if the list must be walked first; none_left if every pool of the size is
// full and every descriptor is taken. Null before the first registration, when no request finds an
// entry. Written under the lock. The first index is the kind, pool::zeroed.
constinit zorvac::atomic<pool*> first_with_room[2][max_sizes];

// The address tables: an empty one, and one for each pool that got its memory. `located` is the
// latest, or null if pools overlap; then the list is walked.
constinit const address_table no_addresses = {1, {{0, &none_left}}};
constinit address_table address_tables[max_pools];
constinit zorvac::atomic<const address_table*> located = &no_addresses;

std::uint32_t count_for(std::uint32_t size) {
  return size == 40 || size == 48 || size == 96 ? large_count : usual_count;
}

// The thread that has the global lock; null if no thread has it.
constinit zorvac::atomic<const void*> lock_holder;

const void* this_thread() {
  const void* thread;
  asm("mov %%fs:0, %0" : "=r"(thread));  // the thread pointer of the x86-64 psABI
  return thread;
}

void lock() {
  __fast_lock(&_i_pool_cr_sec);
  lock_holder.store_relaxed(this_thread());
}

void unlock() {
  lock_holder.store_relaxed(nullptr);
  __fast_unlock(&_i_pool_cr_sec);
}

class global_lock {
 public:
  global_lock() { lock(); }
  ~global_lock() { unlock(); }
  global_lock(const global_lock&) = delete;
  global_lock& operator=(const global_lock&) = delete;
};

size_list& registered(std::uint32_t zeroed) { return zeroed != 0 ? Array_size_calloc : Array_size; }

// The index of `size` in the list; max_sizes if it is not there. Size 0 ends the list and is never
// found.
[[gnu::always_inline]] inline std::uint32_t index_of(const size_list& sizes, std::uint32_t size) {
  for (std::uint32_t i = 0; i < max_sizes; ++i) {
    const std::uint32_t entry = sizes[i].load_acquire();
    if (entry == 0) break;
    if (entry == size) return i;
  }
  return max_sizes;
}

// Initialises a descriptor that is in no list yet.
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

// Puts a pool without memory at the head of the list; it looks full. Under the global lock. The
// caller has checked that a descriptor is free.
pool& add_pool(std::uint32_t size, std::uint32_t zeroed) {
  pool& p = work_pool[last_pool_num++];
  prepare(p, size, count_for(size), zeroed);
  p.handed_out.store_relaxed(p.count);
  p.next = headerP.load_relaxed();
  headerP.store_release(&p);
  return p;
}

// Publishes a table that also has `p`, at `memory`. If the pool's blocks do not fit its memory, it
// publishes null instead. Under the global lock, once for each pool. Readers may still use any
// earlier table, so no table is ever changed.
void locate(pool& p, const char* memory, bool fits) {
  const address_table* const old = located.load_relaxed();
  if (old == nullptr) return;
  if (!fits) return located.store_release(nullptr);
  const address_table::entry added = {reinterpret_cast<std::uintptr_t>(memory), &p};
  address_table& table = address_tables[old->count - 1];
  std::uint32_t i = old->count;
  for (; old->entries[i - 1].base > added.base; --i) table.entries[i] = old->entries[i - 1];
  table.entries[i] = added;
  while (i-- > 0) table.entries[i] = old->entries[i];
  table.count = old->count + 1;
  located.store_release(&table);
}

// Whether malloc has just mapped the memory and nothing has written to it since. An allocator that
// fills its blocks (glibc's does under the tunable glibc.malloc.perturb) fills all of a block, so
// it is enough to look at both ends. `bytes` is a multiple of 16.
bool is_zero(const char* memory, std::size_t bytes) {
  if (bytes == 0 || !zorvac::mem::is_fresh(memory)) return false;
  const auto* const words = reinterpret_cast<const std::uint64_t*>(memory);
  return (words[0] | words[bytes / sizeof *words - 1]) == 0;
}

// Starts a drained or new pool and returns its first block. Under the global lock.
//
// A new pool takes its memory from malloc. If malloc returns null, this returns null, and the pool
// stays without memory: the next request of its size comes here again.
//
// The counter of handed-out blocks is stored last: as soon as a thread sees it, that thread may
// take the second block, so everything else must be done before.
[[gnu::noinline, gnu::cold]] char* start(pool& p) {
  // A 32-bit signed product. A negative one becomes a size that malloc never has.
  const auto bytes = static_cast<std::size_t>(static_cast<std::int32_t>(p.count * p.size));
  char* memory = p.saved_base;
  bool clear = p.zeroed != 0;
  if (memory == nullptr) {
    memory = static_cast<char*>(std::malloc(bytes));
    if (memory == nullptr) return nullptr;
    if (clear && is_zero(memory, bytes)) clear = false;
    p.last = memory + std::size_t{p.size} * (p.count - 1);
    locate(p, memory, std::size_t{p.size} * p.count == bytes);
  }
  if (clear) _zorva_fast_memset(memory, 0, bytes);
  p.freed.store_relaxed(0);
  p.base.store_release(memory);
  p.handed_out.store_release(1);
  return memory;
}

// If the counter is `index`, adds 1 to it and returns true. Otherwise, or spuriously, copies the
// counter to `index` and returns false.
[[gnu::always_inline]] inline bool take(zorvac::atomic<std::uint32_t>& counter,
                                        std::uint32_t& index) {
  if (!zorvac::mem::is_single_threaded()) return counter.try_replace_acquire(index, index + 1);
  counter.store_relaxed(index + 1);
  return true;
}

// The next block of a pool; null if the pool is full. A drained pool looks full too. A pool cannot
// drain while a block of it is taken, so `base` is set.
[[gnu::always_inline]] inline char* next_block(pool& p, std::uint32_t size) {
  std::uint32_t index = p.handed_out.load_relaxed();
  do {
    if (index >= p.count) return nullptr;
  } while (!take(p.handed_out, index));
  return p.base.load_relaxed() + std::size_t{index} * size;
}

struct answer {
  bool from_pool;  // false: the request goes to the system
  char* block;     // null if there is no memory
};

// A block from the first pool that has room or is drained, or from a new pool. While the lock is
// held, a full pool stays full, so the walk finds the first pool with room.
[[gnu::noinline]] answer take_with_lock(std::uint32_t size, std::uint32_t zeroed) {
  const global_lock held;
  const std::uint32_t index = index_of(registered(zeroed), size);
  if (index == max_sizes) return {false, nullptr};
  zorvac::atomic<pool*>& first = first_with_room[zeroed][index];
  for (pool* p = headerP.load_relaxed(); p != nullptr; p = p->next) {
    if (p->size != size || p->zeroed != zeroed) continue;
    const bool drained = p->base.load_relaxed() == nullptr;
    char* const block = drained ? start(*p) : next_block(*p, size);
    if (!drained && block == nullptr) continue;
    first.store_release(p);
    return {true, block};
  }
  if (last_pool_num == max_pools) {
    first.store_release(&none_left);
    return {false, nullptr};
  }
  pool& added = add_pool(size, zeroed);
  first.store_release(&added);
  return {true, start(added)};
}

template <class System>
[[gnu::noinline]] void* allocate_with_lock(std::uint32_t size, std::uint32_t zeroed,
                                           System from_system) {
  const answer a = take_with_lock(size, zeroed);
  return a.from_pool ? a.block : from_system();
}

// Nearly every request is served by the first pool with room, and this part needs no stack frame.
// The pool's size differs if it is a placeholder, or if a registration has just replaced the list.
template <class System>
[[gnu::always_inline]] inline void* allocate(std::uint32_t size, std::uint32_t zeroed,
                                             System from_system) {
  const std::uint32_t index = index_of(registered(zeroed), size);
  if (index == max_sizes) return from_system();
  pool* const p = first_with_room[zeroed][index].load_acquire();
  if (p->size == size) {
    if (char* const block = next_block(*p, size)) return block;
  } else if (p == &none_left) {
    return from_system();
  }
  return allocate_with_lock(size, zeroed, from_system);
}

[[gnu::always_inline]] inline bool holds(const pool& p, std::uintptr_t address) {
  const auto base = reinterpret_cast<std::uintptr_t>(p.base.load_acquire());
  return base != 0 && base <= address && address <= reinterpret_cast<std::uintptr_t>(p.last);
}

[[gnu::noinline, gnu::cold]] pool* walk_to_pool_of(std::uintptr_t address) {
  pool* p = headerP.load_acquire();
  while (p != nullptr && !holds(*p, address)) p = p->next;
  return p;
}

// The pool that `block` belongs to, or null.
[[gnu::always_inline]] inline pool* pool_of(const void* block) {
  const auto address = reinterpret_cast<std::uintptr_t>(block);
  const address_table* const table = located.load_acquire();
  if (table == nullptr) return walk_to_pool_of(address);
  // The entry is one of the `n` entries from `at` on. The choice of the half is computed without a
  // branch, because it cannot be predicted.
  const address_table::entry* at = table->entries;
  for (std::uint32_t n = table->count; n > 1;) {
    const std::uint32_t half = n / 2;
    at += at[half].base <= address ? half : 0;
    n -= half;
  }
  return holds(*at->owner, address) ? at->owner : nullptr;
}

// Under the global lock. The pool now has room, and may come before the stored first pool.
void set_drained(pool& p) {
  char* const base = p.base.load_relaxed();
  if (base == nullptr) return;
  p.saved_base = base;
  p.base.store_relaxed(nullptr);
  const std::uint32_t index = index_of(registered(p.zeroed), p.size);
  if (index < max_sizes) first_with_room[p.zeroed][index].store_release(&not_known);
}

[[gnu::noinline, gnu::cold]] void drain(pool& p) {
  const global_lock held;
  set_drained(p);
}

// Counts one more block of the pool as freed.
[[gnu::always_inline]] inline std::uint32_t count_freed(pool& p) {
  if (!zorvac::mem::is_single_threaded()) return p.freed.add(1);
  const std::uint32_t sum = p.freed.load_relaxed() + 1;
  p.freed.store_relaxed(sum);
  return sum;
}

// The forking thread holds the lock during a fork, so that a child finds everything under the lock
// complete. If the fork is in a signal handler that interrupted the thread while it held the lock,
// the handlers do not take it: the interrupted code releases it, in the child too.
bool handles_forks = false;      // this and the next: under the lock
unsigned forks_in_handlers = 0;  // forks in signal handlers that are between their fork handlers

void before_fork() {
  if (lock_holder.load_relaxed() == this_thread()) {
    ++forks_in_handlers;
  } else {
    lock();
  }
}

void after_fork_in_parent() {
  if (forks_in_handlers != 0) {
    --forks_in_handlers;
  } else {
    unlock();
  }
}

// A thread of the parent may have freed a pool's last block without yet getting the lock. That
// thread does not exist in the child, so the child drains the pool here.
void after_fork_in_child() {
  for (pool& p : work_pool)
    if (forks_in_handlers == 0 && p.freed.load_relaxed() == p.count) set_drained(p);
  after_fork_in_parent();
}

}  // namespace

extern "C" {

void __fast_lock(std::uint32_t* lock) {
  while (__atomic_exchange_n(lock, 1, __ATOMIC_ACQUIRE) != 0)
    while (__atomic_load_n(lock, __ATOMIC_RELAXED) != 0) {
    }
}

// An exchange, and so a full barrier. With a weaker order, clang would make it a plain store.
void __fast_unlock(std::uint32_t* lock) { __atomic_exchange_n(lock, 0, __ATOMIC_SEQ_CST); }

// Descriptors that are in the list of pools stay as they are: the program uses their blocks.
void __i_pool_init(const std::uint32_t* sizes, int for_calloc) {
  const global_lock held;
  if (!handles_forks) {
    zorvac::at_fork(before_fork, after_fork_in_parent, after_fork_in_child);
    handles_forks = true;
  }
  const std::uint32_t zeroed = for_calloc != 0;
  size_list& list = registered(zeroed);
  for (auto& first : first_with_room[zeroed]) first.store_relaxed(&not_known);
  std::uint32_t n = 0;
  for (; n < max_sizes && sizes[n] != 0; ++n) {
    list[n].store_release(sizes[n]);
    Last_PoolP = &work_pool[n];
    if (n >= last_pool_num) prepare(work_pool[n], sizes[n], usual_count, zeroed);
  }
  if (n < max_sizes) list[n].store_release(0);
  for (; n < max_pools; ++n)
    if (n >= last_pool_num) work_pool[n].next = nullptr;
}

void* __i_pool_malloc(std::uint32_t size) {
  return allocate(size, 0, [size] { return std::malloc(size); });
}

void* __i_pool_calloc(int count, int size) {
  const auto bytes = static_cast<std::uint32_t>(count) * static_cast<std::uint32_t>(size);
  return allocate(bytes, 1, [count, size] {
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
  if (p == nullptr) return std::free(block);
  if (count_freed(*p) == p->count) drain(*p);
}
}
