#ifndef ZORVAC_CPU_CACHE_VALUES_H
#define ZORVAC_CPU_CACHE_VALUES_H
// The values that are computed when the library is loaded, and are zero before that. The block
// workers read them directly. Sizes are in bytes; the method is 0, 1 (MMX) or 2 (SSE2).
#include <cstdint>

#pragma GCC visibility push(hidden)
extern "C" {
extern std::int32_t __libvrt_largest_cache_size;
extern std::int32_t __libvrt_largest_cache_size_half;
extern std::int32_t __libvrt_data_cache_size;
extern std::int32_t __libvrt_data_cache_size_half;
extern std::int32_t __libvrt_mem_ops_method;
}
#pragma GCC visibility pop
#endif
