// Cache detection on this processor: the query, and the initialiser that runs when the library is
// loaded. Whichever runs first does the detection. If two threads do it at once, both store the
// same words.
#include "cpu/fast_mem_ops.h"

#include "zorvac/cpu.h"

using namespace zorvac;

extern "C" {

std::int32_t __libvrt_largest_cache_size;
std::int32_t __libvrt_largest_cache_size_half;
std::int32_t __libvrt_data_cache_size;
std::int32_t __libvrt_data_cache_size_half;
std::int32_t __libvrt_mem_ops_method;
std::int32_t __libvrt_largest_cachelinesize;
std::int32_t __libvrt_tmp;
cpu::cache_table __libvrt_cache_tbl;
}

// The library's only constructor. It runs when the library is loaded, before any entry point is
// called. In a program that is linked with the archive it also runs before the program's own
// constructors, which may call entry points: 0 is the first priority. (Priorities below 101 are
// reserved for the implementation, which this library is part of. g++ takes the priority from the
// first declaration only.)
[[gnu::constructor(0)]] void load_time_initialiser() __asm__("__sti__$E");

void load_time_initialiser() {
  const cpu::cache_thresholds t =
      cpu::thresholds_at_load(hardware_processor{}, cpu::accepted_vendor, __libvrt_cache_tbl);
  __libvrt_largest_cache_size = t.largest_cache_size;
  __libvrt_largest_cache_size_half = t.largest_cache_size_half;
  __libvrt_data_cache_size = t.data_cache_size;
  __libvrt_data_cache_size_half = t.data_cache_size_half;
  __libvrt_largest_cachelinesize = t.largest_cachelinesize;
  __libvrt_mem_ops_method = t.mem_ops_method;
  __libvrt_tmp = t.mem_ops_method;
}

extern "C" std::uint32_t __cacheSize(std::uint32_t level) {
  if (level < 1 || level > 3) return 0;
  if (__libvrt_cache_tbl.computed == 0)
    cpu::detect_caches(cpu::introduced(hardware_processor{}), cpu::accepted_vendor,
                       __libvrt_cache_tbl);
  return __libvrt_cache_tbl.level(level).size_kb;
}
