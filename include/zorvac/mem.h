#ifndef ZORVAC_MEM_H
#define ZORVAC_MEM_H
/** Memory: block copy, move, fill and compare; further down, pools, aligned blocks, zero-filled
 *  blocks and the guard of stack buffers.
 *
 *  Compiled programs call four entry points: _zorva_fast_memcpy, _zorva_fast_memmove,
 *  _zorva_fast_memset and _zorva_fast_memcmp. The first three choose, on every call, the best
 *  routine that the feature indicator (zorvac/cpu.h) allows, and jump to it. A caller that knows
 *  the processor may also call these routines, the workers, directly. docs/memory.md says how the
 *  workers work.
 *
 *  For every block routine:
 *    counts     bytes, 0 included; a count of 0 neither reads nor writes
 *    alignment  none required
 *    errors     none
 *    registers  System V AMD64; the direction flag must be clear and stays clear; MXCSR and the x87
 *               state are not changed, and no upper half of a vector register is left dirty
 *    memory     allocates nothing; reads may reach beyond the source within the 16-byte blocks that
 *               hold its first and last byte, and never fault there; writes nothing beyond the
 *               destination
 *    threads    re-entrant; a routine that stores past the caches executes a store fence at its end
 *    source     the C standard (C11), 7.24.2.1 and 7.24.2.2 (copy, move), 7.24.6.1 (fill),
 *               7.24.4.1 (compare)
 *
 *  The copy and fill routines return the destination. A program may replace every symbol, and every
 *  variant (the name, a dot and a letter, such as _zorva_fast_memcpy.V), by its own definition.
 */
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Copies count bytes from source to destination, which must not overlap.
 *
 *  Runs the first variant whose processor level (all of the features in its mask) is present:
 *    _zorva_fast_memcpy.Z  AVX-512 with ER and PF  __zorva_vpx_avx512f_memcpy
 *    _zorva_fast_memcpy.V  AVX2                    __zorva_avx_rep_memcpy
 *    _zorva_fast_memcpy.P  SSE4.2                  __zorva_ssse3_rep_memcpy
 *    _zorva_fast_memcpy.M  SSSE3                   __zorva_ssse3_memcpy
 *    _zorva_fast_memcpy.J  SSE2                    __zorva_new_memcpy
 *    _zorva_fast_memcpy.A  any                     memcpy of the C library */
void* _zorva_fast_memcpy(void* destination, const void* source, size_t count);

/** Copies count bytes from source to destination, which may overlap in any way. Variants:
 *    _zorva_fast_memmove.P  SSE4.2  __zorva_ssse3_rep_memmove
 *    _zorva_fast_memmove.M  SSSE3   __zorva_ssse3_memmove
 *    _zorva_fast_memmove.A  any     memmove of the C library */
void* _zorva_fast_memmove(void* destination, const void* source, size_t count);

/** Stores the low 8 bits of value into each of count bytes. Variants:
 *    _zorva_fast_memset.Z  AVX-512 with ER and PF  __zorva_vpx_avx512f_memset
 *    _zorva_fast_memset.V  AVX2                    __zorva_avx_rep_memset
 *    _zorva_fast_memset.J  SSE2                    __zorva_new_memset
 *    _zorva_fast_memset.A  any                     memset of the C library */
void* _zorva_fast_memset(void* destination, int value, size_t count);

/** Compares two blocks as sequences of unsigned bytes; not dispatched.
 *
 *  returns  exactly -1, 0 or +1: the first byte that differs is smaller in a, there is none, or it
 *           is greater in a. If count is 0 or the pointers are equal, 0 without reading */
int _zorva_fast_memcmp(const void* a, const void* b, size_t count);

/** Copy workers; the blocks must not overlap. What each uses:
 *    __zorva_new_memcpy          SSE2; the bulk of large blocks through general registers if the
 *                                load-time method is not 2. __zorva_memcpy is the same routine
 *    __zorva_ssse3_memcpy        SSSE3
 *    __zorva_ssse3_rep_memcpy    SSSE3; large blocks partly past the caches
 *    __zorva_avx_rep_memcpy      AVX2; a string instruction for medium blocks
 *    __zorva_vpx_avx512f_memcpy  AVX-512F; blocks from 512 bytes on past the caches
 *  Calling one on a processor without those instructions raises the illegal-instruction signal. */
void* __zorva_new_memcpy(void* destination, const void* source, size_t count);
void* __zorva_memcpy(void* destination, const void* source, size_t count);
void* __zorva_ssse3_memcpy(void* destination, const void* source, size_t count);
void* __zorva_ssse3_rep_memcpy(void* destination, const void* source, size_t count);
void* __zorva_avx_rep_memcpy(void* destination, const void* source, size_t count);
void* __zorva_vpx_avx512f_memcpy(void* destination, const void* source, size_t count);

/** Move workers; the blocks may overlap in any way. Each needs the same instructions as the copy
 *  whose name begins in the same way. */
void* __zorva_new_memmove(void* destination, const void* source, size_t count);
void* __zorva_ssse3_memmove(void* destination, const void* source, size_t count);
void* __zorva_ssse3_rep_memmove(void* destination, const void* source, size_t count);

/** Fill workers: fill with the low 8 bits of value. __zorva_memset is the same routine as
 *  __zorva_new_memset (SSE2); the others need AVX2 and AVX-512F. */
void* __zorva_new_memset(void* destination, int value, size_t count);
void* __zorva_memset(void* destination, int value, size_t count);
void* __zorva_avx_rep_memset(void* destination, int value, size_t count);
void* __zorva_vpx_avx512f_memset(void* destination, int value, size_t count);

/** Compares as _zorva_fast_memcmp() does, with the same results, but also reads the blocks if the
 *  pointers are equal. The count is signed here: one above 2^63 - 1 is taken as 0. */
int __zorva_new_memcmp(const void* a, const void* b, size_t count);

/** Copies and fills (SSE2). For counts above 16384 they probe whether the destination is in the
 *  caches, and store past the caches if it is not. The blocks of a copy must not overlap. The zero
 *  fills ignore their second argument. The routines named __zorva_VEC_* do the same as those named
 *  _VEC_*, and are separate routines. */
void* _VEC_memcpy(void* destination, const void* source, size_t count);
void* _VEC_memset(void* destination, int value, size_t count);
void* _VEC_memzero(void* destination, int ignored, size_t count);
void* __zorva_VEC_memcpy(void* destination, const void* source, size_t count);
void* __zorva_VEC_memset(void* destination, int value, size_t count);
void* __zorva_VEC_memzero(void* destination, int ignored, size_t count);

/** Pools: blocks of a few sizes that a program allocates very often.
 *
 *  A pool is one piece of memory from malloc, cut into blocks of one size: 300,000 blocks of 40, 48
 *  or 96 bytes, 30,000 of any other size. Blocks are handed out in order of address. A freed block
 *  is not used again until all blocks of its pool have been freed; then the next request of that
 *  size starts the pool over from its first block. While a pool is full, another one serves its
 *  size, up to 50 pools for all sizes together. Pool memory is never given back to the system.
 *
 *  A request that no pool can serve goes to malloc or calloc of the C library: its size is not
 *  registered, or all 50 pools are taken and those of its size are full. A block that lies in no
 *  pool goes to realloc or free of the C library. The pool routines therefore accept blocks of the
 *  C library too.
 *
 *  For every pool routine:
 *    alignment  blocks of a pool follow each other without a gap, from an address that malloc gave:
 *               a block is aligned to 16 bytes only where its size is a multiple of 16
 *    threads    any thread may call any routine at any time, and free what another one allocated;
 *               a request may wait, spinning, while another thread adds or restarts a pool
 *    fork       a child of fork may use pools, whatever other threads of the parent were doing; a
 *               child of vfork, _Fork or the bare system call may not
 *    signals    a signal handler must not call these routines
 *    errors     null if there is no memory, as from malloc; nothing is printed. A pool that gets no
 *               memory asks again at the next request of its size
 *    registers  System V AMD64
 */

/** Registers block sizes. They replace those that an earlier call for the same kind registered.
 *
 *  sizes       [in] block sizes in bytes, ended by 0; at most 50 are read, and after 50 sizes no 0
 *                   is needed
 *  for_calloc  0: for __i_pool_malloc and __i_pool_realloc; otherwise for __i_pool_calloc
 *
 *  The memory of a pool, count x size bytes, is computed in 32-bit signed arithmetic, so a size may
 *  be at most 71,582. If the product is negative, requests of that size always get null. If it
 *  wraps to a positive value (143,166 is the smallest such size), most blocks would lie outside of
 *  the memory: do not register such sizes. Existing pools and their blocks stay as they are. */
void __i_pool_init(const uint32_t* sizes, int for_calloc);

/** Allocates size bytes, not initialised. */
void* __i_pool_malloc(uint32_t size);

/** Allocates count x size bytes, all zero. Pools are looked up by the product modulo 2^32, so the
 *  caller makes sure that the product is below 2^32. calloc gets both factors unchanged. */
void* __i_pool_calloc(int count, int size);

/** Moves a block to one of size bytes, with its contents up to the smaller of both sizes. The
 *  additional bytes of a larger block are not initialised, even for a block of __i_pool_calloc. A
 *  block of a pool always moves, to a new block of __i_pool_malloc. Other blocks, and null, go to
 *  realloc.
 *
 *  returns  the new block; null if there is no memory, and then the old block is still valid */
void* __i_pool_realloc(void* block, uint32_t size);

/** Frees a block of the three routines above, or of the C library, or null. */
void __i_pool_free(void* block);

/** Takes a spin lock: stores 1 in place of 0, and spins without a pause until it can. The memory
 *  order is acquire. */
void __fast_lock(uint32_t* lock);

/** Releases a lock that the caller holds: stores 0, with a full memory barrier. */
void __fast_unlock(uint32_t* lock);

/** Allocates size bytes at an address that is a multiple of alignment, which is a power of two (if
 *  it is below 8, 8 is used). The 8 bytes in front of the block hold the pointer from malloc.
 *
 *  Exported as _mm_malloc and _mm_free. They have other names here because the compilers' own
 *  <mm_malloc.h>, which every header of vector intrinsics includes, defines static functions with
 *  those names. Do not free a block of the library with the compiler's function, or the reverse.
 *
 *  returns  the block, to be freed only by zorvac_mm_free(); null if malloc returns null or
 *           size + alignment + 8 exceeds the address space
 *  threads  re-entrant */
void* zorvac_mm_malloc(size_t size, size_t alignment) __asm__("_mm_malloc");

/** Frees a block of zorvac_mm_malloc(); null is ignored. */
void zorvac_mm_free(void* block) __asm__("_mm_free");

/** Allocates count x size bytes, filled with zeros. A block that malloc has mapped from the
 *  operating system for this request is already zero and is not written to. The word in front of a
 *  block says whether it was mapped: in the C library's allocator, that is bit 1 of the word that
 *  holds the block's size.
 *
 *  All bytes are zero on two conditions:
 *    - malloc is the C library's. With another allocator the word in front of a block may be
 *      anything, such as the end of a neighbour's data. A program filled blocks with ones, freed
 *      them, and then allocated 1300 blocks of 1 to 256 bytes: 522 of them were not zero with
 *      mimalloc 2.0.9, and 516 with jemalloc 5.3.0.
 *    - malloc does not fill its blocks. With the tunable glibc.malloc.perturb the C library's does,
 *      and fills mapped blocks too.
 *  A program that cannot know this should call calloc or __i_pool_calloc() instead.
 *
 *  returns  the block, to be freed by free(); null if malloc returns null, or if the process has no
 *           malloc. The product wraps modulo 2^64: callers check it if it could wrap
 *  threads  re-entrant */
void* _zorva_fast_calloc(size_t count, size_t size);

/** The value that compiled code puts between its stack buffers and its return address. It is fixed
 *  when the library is built; it is not zero, and its upper 32 bits are zero. The library only
 *  reads it. A program may store its own value while no function that uses the cookie is running.
 */
extern uint64_t __zorva_security_cookie;

/** Compares the value found on the stack with the cookie. If they are equal, returns and changes
 *  only the flags. Otherwise prints message 26
 *  ("Error:  Buffer overrun occurred, forced exit") on standard error and ends the process with
 *  abort(): no exit handler runs. */
void __zorva_security_check_cookie(uint64_t found);

/** Does nothing: the cookie needs no initialisation. */
void __zorva_security_init_cookie(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#include <zorvac/string.h>

#endif
