#ifndef ZORVAC_STARTUP_H
#define ZORVAC_STARTUP_H
/** Start-up processor checks: a program compiled for an instruction-set level calls one of these
 *  first thing in main, before any instruction of that level.
 *
 *  Where the processor and the operating system provide the level, the routine sets the requested
 *  flush modes of the calling thread's MXCSR and returns. Where they do not, it prints a message
 *  on standard error and ends the process with exit(1), so exit handlers run.
 *
 *  Each routine is a dispatcher over exported variants: its own name, a point and a capital
 *  letter, callable directly. `.A` refuses, or does nothing in the two that never refuse; the other
 *  letters accept without a test.
 *
 *  Registers: System V AMD64; the dispatch itself changes only R10, R11 and the flags.
 *  Threads:   re-entrant, but meant for one call from the main thread. Memory: allocates nothing
 *             unless it refuses (the C library's streams and catalogue routines may).
 */
#include <stdint.h>

/** Bits of the flags word.
 *
 *  The routines without a letter, the feature-mask routine and the variants named .J ask the
 *  processor (the MXCSR mask that FXSAVE stores) and leave out what it does not have. The others
 *  take for granted what their level suggests, without asking: bit 6 in all of them, bit 17 in _H,
 *  _G, _I and _E. Setting a bit that the processor does not have is a general-protection fault,
 *  which ends the process by SIGSEGV. Many processors do not have bit 17: give it to those four
 *  only in a program that runs where it exists. */
enum {
  ZORVAC_FLUSH_TO_ZERO = 1,      /**< set MXCSR bit 15 */
  ZORVAC_DENORMALS_ARE_ZERO = 2, /**< set MXCSR bit 6 */
  ZORVAC_MXCSR_BIT_17 = 4        /**< set MXCSR bit 17 */
};

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Never refuses: sets the modes where mask 0x3f (x87, CMOV, MMX, FXSAVE, SSE) is met, and
 *  returns without doing anything where it is not. */
void __zorva_new_proc_init(int flags);

/** Required features, beyond mask 0x3f, and the variants in the order tried. The message of three
 *  routines names more than they test: _L (MOVBE), _I (RDRAND), _E (HLE, RTM). */
void __zorva_new_proc_init_B(int flags); /**< SSE2, SSE3: .L; SSE2: .K; (.J: by direct call) */
void __zorva_new_proc_init_N(int flags); /**< as _B */
void __zorva_new_proc_init_P(int flags); /**< SSE2, SSE3: .L */
void __zorva_new_proc_init_T(int flags); /**< up to SSSE3: .M */
void __zorva_new_proc_init_L(int flags); /**< up to SSSE3: .O */
void __zorva_new_proc_init_S(int flags); /**< up to SSE4.1: .N */
void __zorva_new_proc_init_H(int flags); /**< up to SSE4.2, POPCNT: .P */
void __zorva_new_proc_init_G(int flags); /**< as _H, and AVX: .R */
void __zorva_new_proc_init_I(int flags); /**< as _G, and F16C: .S */
void __zorva_new_proc_init_E(int flags); /**< as _I, and FMA, BMI, LZCNT, AVX2: .V */

/** The older generation: no argument, flags as if ZORVAC_FLUSH_TO_ZERO and
 *  ZORVAC_DENORMALS_ARE_ZERO had been given; masks and variants as above. */
void __zorva_proc_init(void);
void __zorva_proc_init_B(void);
void __zorva_proc_init_N(void);
void __zorva_proc_init_P(void);
void __zorva_proc_init_T(void);

/** Requires any set of features, and names the missing ones when it refuses.
 *
 *  flags    [in] as above; applied only where the processor has SSE
 *  required [in] mask of feature-indicator bits (ZORVAC_FEATURE_... of <zorvac/cpu.h>), without
 *                bit 0
 *  Errors:  prints and ends the process with status 1: with the list of the missing features; with
 *           a note that program and library do not fit each other when features are missing and
 *           the mask has bit 0, a missing bit has no name (25), or only bits from 40 up are
 *           missing; or that the library is inconsistent when detection left no result. */
void __zorva_new_feature_proc_init(int flags, uint64_t required);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
