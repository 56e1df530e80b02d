#ifndef ZORVAC_MEM_H
#define ZORVAC_MEM_H
/** Memory: block copy, move, fill and compare.
 *
 *  Compiled programs call the four entry points named _zorva_fast_*. Three of them choose, on every
 *  call, the best routine that the feature indicator (zorvac/cpu.h) allows and jump to it; the
 *  routines themselves, the workers, may also be called directly where the caller knows the
 *  processor. docs/memory.md tells how the workers go about it.
 *
 *  For every routine here:
 *    counts     bytes, 0 included; a count of 0 neither reads nor writes
 *    alignment  none required
 *    errors     none
 *    registers  System V AMD64; the direction flag must be clear and stays clear; MXCSR and the x87
 *               state are not touched, and no upper half of a vector register is left dirty
 *    memory     allocates nothing; reads may reach beyond the source within the 16-byte blocks that
 *               hold its first and last byte, and never fault there; writes nothing beyond the
 *               destination
 *    threads    re-entrant; where a routine stores past the caches, a store fence precedes its return
 *    source     the C standard, 7.24.2.1 and 7.24.2.2 (copy, move), 7.24.6.1 (fill), 7.24.4.1 (compare)
 *
 *  The copy and fill routines return the destination. Every symbol, and every variant entry point
 *  (the name, a point and a letter, such as _zorva_fast_memcpy.V), may be replaced by a definition
 *  of the program's own.
 */
#include <stddef.h>

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
void *_zorva_fast_memcpy(void *destination, const void *source, size_t count);

/** Copies count bytes from source to destination, which may overlap in any way. Variants:
 *    _zorva_fast_memmove.P  SSE4.2  __zorva_ssse3_rep_memmove
 *    _zorva_fast_memmove.M  SSSE3   __zorva_ssse3_memmove
 *    _zorva_fast_memmove.A  any     memmove of the C library */
void *_zorva_fast_memmove(void *destination, const void *source, size_t count);

/** Stores the low 8 bits of value into each of count bytes. Variants:
 *    _zorva_fast_memset.Z  AVX-512 with ER and PF  __zorva_vpx_avx512f_memset
 *    _zorva_fast_memset.V  AVX2                    __zorva_avx_rep_memset
 *    _zorva_fast_memset.J  SSE2                    __zorva_new_memset
 *    _zorva_fast_memset.A  any                     memset of the C library */
void *_zorva_fast_memset(void *destination, int value, size_t count);

/** Compares two blocks as sequences of unsigned bytes; not dispatched.
 *
 *  returns  -1, 0 or +1 and nothing else, as the first byte that differs is smaller in a, does not
 *           exist, or is greater in a; 0 without reading when count is 0 or a equals b */
int _zorva_fast_memcmp(const void *a, const void *b, size_t count);

/** Copies; the blocks must not overlap. What each may use, and is tuned for:
 *    __zorva_new_memcpy          SSE2, and general registers alone where the load-time method is not
 *                                2; __zorva_memcpy is the same routine
 *    __zorva_ssse3_memcpy        SSSE3
 *    __zorva_ssse3_rep_memcpy    SSSE3; large blocks partly past the caches
 *    __zorva_avx_rep_memcpy      AVX2; a string instruction for medium blocks
 *    __zorva_vpx_avx512f_memcpy  AVX-512F; from 512 bytes on past the caches
 *  Calling one on a processor without those instructions raises the illegal-instruction signal. */
void *__zorva_new_memcpy(void *destination, const void *source, size_t count);
void *__zorva_memcpy(void *destination, const void *source, size_t count);
void *__zorva_ssse3_memcpy(void *destination, const void *source, size_t count);
void *__zorva_ssse3_rep_memcpy(void *destination, const void *source, size_t count);
void *__zorva_avx_rep_memcpy(void *destination, const void *source, size_t count);
void *__zorva_vpx_avx512f_memcpy(void *destination, const void *source, size_t count);

/** Moves; the blocks may overlap in any way. Processors as for the copies of the same stem. */
void *__zorva_new_memmove(void *destination, const void *source, size_t count);
void *__zorva_ssse3_memmove(void *destination, const void *source, size_t count);
void *__zorva_ssse3_rep_memmove(void *destination, const void *source, size_t count);

/** Fills with the low 8 bits of value. __zorva_memset is the same routine as __zorva_new_memset
 *  (SSE2); the others need AVX2 and AVX-512F. */
void *__zorva_new_memset(void *destination, int value, size_t count);
void *__zorva_memset(void *destination, int value, size_t count);
void *__zorva_avx_rep_memset(void *destination, int value, size_t count);
void *__zorva_vpx_avx512f_memset(void *destination, int value, size_t count);

/** Compares as _zorva_fast_memcmp() does, with the same results, reading equal pointers too.
 *  The count is taken as signed here: one above 2^63 - 1 counts as none. */
int __zorva_new_memcmp(const void *a, const void *b, size_t count);

/** Copies and fills (SSE2) that probe, for counts above 16384, whether the destination is in the
 *  caches and store past them if it is not. The blocks of a copy must not overlap; the second
 *  argument of the zero fills is ignored. The second name of each is an equal routine of its own. */
void *_VEC_memcpy(void *destination, const void *source, size_t count);
void *_VEC_memset(void *destination, int value, size_t count);
void *_VEC_memzero(void *destination, int ignored, size_t count);
void *__zorva_VEC_memcpy(void *destination, const void *source, size_t count);
void *__zorva_VEC_memset(void *destination, int value, size_t count);
void *__zorva_VEC_memzero(void *destination, int ignored, size_t count);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
