#ifndef ZORVAC_MEM_IMALLOC_H
#define ZORVAC_MEM_IMALLOC_H
// The data of the pool allocator, for its own source and for tests. docs/pool.md explains the
// states and proves that the path without a lock is correct.
#include <cstddef>
#include <cstdint>

#include "core/atomic.h"
#include "zorvac/mem.h"

namespace zorvac::mem {

inline constexpr std::uint32_t max_pools = 50;
inline constexpr std::uint32_t max_sizes = 50;

inline constexpr std::size_t cache_line_bytes = 64;

// One pool: `count` blocks of `size` bytes side by side, handed out from the first to the last.
//
//   base           last
//   | 0 | 1 | ...  | count - 1 |
//     handed out ->|  next to go
//
// Threads write the two counters very often and the rest very rarely, hence the three cache lines.
struct alignas(cache_line_bytes) pool {
  // Fixed once the pool is in the list.
  pool* next = nullptr;
  std::uint32_t size = 0;
  std::uint32_t count = 0;
  std::uint32_t zeroed = 0;  // 1: serves __i_pool_calloc, 0: serves __i_pool_malloc

  // Written under the global lock.
  char* saved_base = nullptr;  // the memory of a drained pool; null if it was never drained
  char* last = nullptr;        // fixed once base has been stored for the first time
  atomic<char*> base;          // null while the pool is drained

  alignas(cache_line_bytes) atomic<std::uint32_t> handed_out;
  alignas(cache_line_bytes) atomic<std::uint32_t> freed;
};

// The pools that have memory, including drained ones, in order of address. The first entry is for
// the addresses below the first pool, and belongs to no real pool.
struct address_table {
  struct entry {
    std::uintptr_t base = 0;
    pool* owner = nullptr;
  };
  std::uint32_t count = 0;
  entry entries[max_pools + 1] = {};
};

// Registered sizes, ended by 0 or by the end of the array.
using size_list = atomic<std::uint32_t>[max_sizes];

}  // namespace zorvac::mem

extern "C" {
extern zorvac::mem::pool work_pool[zorvac::mem::max_pools];
extern zorvac::mem::size_list Array_size;           // for __i_pool_malloc
extern zorvac::mem::size_list Array_size_calloc;    // for __i_pool_calloc
extern zorvac::atomic<zorvac::mem::pool*> headerP;  // the list of pools, the youngest first
extern std::uint32_t last_pool_num;                 // how many of work_pool are in the list
extern zorvac::mem::pool* Last_PoolP;               // the last one that a registration prepared
extern std::uint32_t _i_pool_cr_sec;                // the global lock
}
#endif
