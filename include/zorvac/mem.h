#ifndef ZORVAC_MEM_H
#define ZORVAC_MEM_H
/** Memory: block copy, move, fill and compare; further down, pools, aligned blocks, zero-filled
 *  blocks and the guard of stack buffers.
 *
 *  Compiled programs call the four entry points named _zorva_fast_*. Three of them choose, on every
 *  call, the best routine that the feature indicator (zorvac/cpu.h) allows and jump to it; the
 *  routines themselves, the workers, may also be called directly where the caller knows the
 *  processor. docs/memory.md tells how the workers go about it.
 *
 *  For every block routine:
 *    counts     bytes, 0 included; a count of 0 neither reads nor writes
 *    alignment  none required
 *    errors     none
 *    registers  System V AMD64; the direction flag must be clear and stays clear; MXCSR and the x87
 *               state are not touched, and no upper half of a vector register is left dirty
 *    memory     allocates nothing; reads may reach beyond the source within the 16-byte blocks that
 *               hold its first and last byte, and never fault there; writes nothing beyond the
 *               destination
 *    threads    re-entrant; after stores past the caches a store fence precedes the return
 *    source     the C standard (C11), 7.24.2.1 and 7.24.2.2 (copy, move), 7.24.6.1 (fill),
 *               7.24.4.1 (compare)
 *
 *  The copy and fill routines return the destination. Every symbol, and every variant entry point
 *  (the name, a point and a letter, such as _zorva_fast_memcpy.V), may be replaced by a definition
 *  of the program's own.
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
 *  returns  -1, 0 or +1 and nothing else, as the first byte that differs is smaller in a, does not
 *           exist, or is greater in a; 0 without reading when count is 0 or a equals b */
int _zorva_fast_memcmp(const void* a, const void* b, size_t count);

/** Copies; the blocks must not overlap. What each may use, and is tuned for:
 *    __zorva_new_memcpy          SSE2; the bulk of large blocks by general registers where the
 *                                load-time method is not 2. __zorva_memcpy is the same routine
 *    __zorva_ssse3_memcpy        SSSE3
 *    __zorva_ssse3_rep_memcpy    SSSE3; large blocks partly past the caches
 *    __zorva_avx_rep_memcpy      AVX2; a string instruction for medium blocks
 *    __zorva_vpx_avx512f_memcpy  AVX-512F; from 512 bytes on past the caches
 *  Calling one on a processor without those instructions raises the illegal-instruction signal. */
void* __zorva_new_memcpy(void* destination, const void* source, size_t count);
void* __zorva_memcpy(void* destination, const void* source, size_t count);
void* __zorva_ssse3_memcpy(void* destination, const void* source, size_t count);
void* __zorva_ssse3_rep_memcpy(void* destination, const void* source, size_t count);
void* __zorva_avx_rep_memcpy(void* destination, const void* source, size_t count);
void* __zorva_vpx_avx512f_memcpy(void* destination, const void* source, size_t count);

/** Moves; the blocks may overlap in any way. Processors as for the copies of the same stem. */
void* __zorva_new_memmove(void* destination, const void* source, size_t count);
void* __zorva_ssse3_memmove(void* destination, const void* source, size_t count);
void* __zorva_ssse3_rep_memmove(void* destination, const void* source, size_t count);

/** Fills with the low 8 bits of value. __zorva_memset is the same routine as __zorva_new_memset
 *  (SSE2); the others need AVX2 and AVX-512F. */
void* __zorva_new_memset(void* destination, int value, size_t count);
void* __zorva_memset(void* destination, int value, size_t count);
void* __zorva_avx_rep_memset(void* destination, int value, size_t count);
void* __zorva_vpx_avx512f_memset(void* destination, int value, size_t count);

/** Compares as _zorva_fast_memcmp() does, with the same results, reading equal pointers too.
 *  The count is taken as signed here: one above 2^63 - 1 counts as none. */
int __zorva_new_memcmp(const void* a, const void* b, size_t count);

/** Copies and fills (SSE2) that probe, for counts above 16384, whether the destination is in the
 *  caches and store past them if it is not. The blocks of a copy must not overlap; the second
 *  argument of the zero fills is ignored. The second name of each is an equal routine of its own.
 */
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
 *  A request that no pool can serve (its size is not registered; all of 50 pools are taken and
 *  those of its size are full) goes to malloc, calloc, realloc or free of the C library, and so
 *  does every block that lies in no pool. Blocks of one kind may therefore be freed as the other.
 *
 *  For every pool routine:
 *    alignment  blocks of a pool follow each other without a gap, from an address that malloc gave:
 *               a block is aligned to 16 bytes only where its size is a multiple of 16
 *    threads    any thread may call any routine at any time, and free what another one allocated;
 *               a request may wait, spinning, while another thread adds or restarts a pool
 *    fork       a child of fork may use pools whatever other threads of the parent were doing; one
 *               of vfork, _Fork or the bare system call may not
 *    signals    not to be called from a signal handler
 *    errors     null where the memory has run out, as from malloc; nothing is printed. A pool that
 *               finds no memory asks again at the next request of its size
 *    registers  System V AMD64
 */

/** Registers block sizes, in place of those that an earlier call with the same kind registered.
 *
 *  sizes       [in] block sizes in bytes, ended by 0; at most 50 are read, and with 50 there need
 *                   be no 0 behind them
 *  for_calloc  0: for __i_pool_malloc and __i_pool_realloc; otherwise for __i_pool_calloc
 *
 *  A pool takes count x size bytes in 32-bit signed arithmetic, so a size may be at most 71,582.
 *  One for which the product turns negative always gets null; with one for which it wraps to a
 *  positive value (143,166 is the smallest), most blocks would lie outside the memory: do not
 *  register such sizes. Pools that exist already, and their blocks, stay as they are. */
void __i_pool_init(const uint32_t* sizes, int for_calloc);

/** Allocates size bytes, not initialised. */
void* __i_pool_malloc(uint32_t size);

/** Allocates count x size bytes, all zero. Pools are looked up by the product modulo 2^32, so the
 *  caller sees to it that it does not exceed that; calloc gets both factors as they are. */
void* __i_pool_calloc(int count, int size);

/** Moves a block to one of size bytes, with the contents up to the smaller of both sizes; what a
 *  larger block has beyond them is not initialised, for blocks of __i_pool_calloc too. A block of a
 *  pool always moves, to where __i_pool_malloc puts it; another one, and null, goes to realloc.
 *
 *  returns  the new block; null, with the old block still valid, where there is no memory */
void* __i_pool_realloc(void* block, uint32_t size);

/** Frees a block of the three routines above, or of the C library, or null. */
void __i_pool_free(void* block);

/** A spin lock: takes it, spinning without a pause, by storing 1 in place of 0. Acquires. */
void __fast_lock(uint32_t* lock);

/** Releases a lock that the caller has: stores 0. */
void __fast_unlock(uint32_t* lock);

/** Allocates size bytes at an address that is a multiple of alignment, a power of two (8 where it
 *  is less). The 8 bytes in front of the block hold the pointer that malloc gave.
 *
 *  Exported as _mm_malloc and _mm_free. They have other names here because the compilers' own
 *  <mm_malloc.h>, which every header of vector intrinsics includes, defines static functions of
 *  those names; blocks of the ones must not be freed by the others.
 *
 *  returns  the block, to be freed by zorvac_mm_free() alone; null where malloc gives null or
 *           size + alignment + 8 exceeds the address space
 *  threads  re-entrant */
void* zorvac_mm_malloc(size_t size, size_t alignment) __asm__("_mm_malloc");

/** Frees a block of zorvac_mm_malloc(); null is ignored. */
void zorvac_mm_free(void* block) __asm__("_mm_free");

/** Allocates count x size bytes. A block that malloc has mapped from the operating system for this
 *  request is not written to: it is zero already. The word in front of a block tells whether it
 *  was: in the C library's allocator it holds the block's size and, as bit 1, that mark.
 *
 *  All bytes are zero on two conditions:
 *    - malloc is the C library's. With another allocator the word in front of a block may be
 *      anything, such as the end of a neighbour's data: of 1300 blocks of 1 to 256 bytes, in a
 *      program that had filled such blocks with ones and freed them before, 522 were not zero with
 *      mimalloc 2.0.9, and 516 with jemalloc 5.3.0.
 *    - It does not fill what it gives (the tunable glibc.malloc.perturb): mapped blocks, too, are
 *      filled then.
 *  A program that cannot know calls calloc, or uses __i_pool_calloc().
 *
 *  returns  the block, to be freed by free(); null where malloc gives null, or where the process
 *           has no malloc. The product wraps modulo 2^64: callers check it where it could
 *  threads  re-entrant */
void* _zorva_fast_calloc(size_t count, size_t size);

/** The value that compiled code puts between its stack buffers and its return address. Fixed when
 *  the library is built, not zero, the upper 32 bits zero; the library only reads it. A program may
 *  store a value of its own, while no function that compares with it is running. */
extern uint64_t __zorva_security_cookie;

/** Compares the value found on the stack with the cookie. Returns when they are equal, with every
 *  register but the flags as it was. Otherwise prints message 26
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
