#ifndef ZORVAC_STARTUP_H
#define ZORVAC_STARTUP_H
/** Start-up processor checks: a program compiled for an instruction-set level calls one of these at
 *  the start of main, before any instruction of that level.
 *
 *  If the processor and the operating system provide the level, the routine sets the requested
 *  flush modes of the calling thread's MXCSR and returns. If not, it prints a message on standard
 *  error and ends the process with exit(1), so exit handlers run.
 *
 *  Each routine is a dispatcher over exported variants, which may also be called directly. The name
 *  of a variant is the routine's name, a dot and a capital letter. `.A` refuses; in the two
 *  routines that never refuse, it does nothing. The other variants accept without a test.
 *
 *  Registers: System V AMD64; the dispatch itself changes only R10, R11 and the flags.
 *  Threads:   re-entrant, but meant for one call from the main thread. Memory: allocates nothing
 *             unless it refuses (the C library's streams and catalogue routines may).
 */
#include <stdint.h>

/** Bits of the flags word.
 *
 *  The routines without a letter, the feature-mask routine and the variants named .J ask the
 *  processor (the MXCSR mask that FXSAVE stores) and leave out the bits that it does not have. The
 *  others assume, without asking, the bits that their level suggests: bit 6 in all of them, bit 17
 *  in _H, _G, _I and _E. Setting a bit that the processor does not have is a general-protection
 *  fault, which ends the process by SIGSEGV. Many processors do not have bit 17: pass flag 4 to
 *  those four only in a program that runs only on processors that have it. */
enum {
  ZORVAC_FLUSH_TO_ZERO = 1,      /**< set MXCSR bit 15 */
  ZORVAC_DENORMALS_ARE_ZERO = 2, /**< set MXCSR bit 6 */
  ZORVAC_MXCSR_BIT_17 = 4        /**< set MXCSR bit 17 */
};

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Never refuses. Sets the modes if the processor has all features of mask 0x3f (x87, CMOV, MMX,
 *  FXSAVE, SSE); otherwise does nothing. */
void __zorva_new_proc_init(int flags);

/** The comments give the required features beyond mask 0x3f, and the variants in the order in which
 *  they are tried. The messages of three routines name more than the routines test: _L (MOVBE), _I
 *  (RDRAND), _E (HLE, RTM). */
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

/** The older generation takes no argument. It acts as with the flags ZORVAC_FLUSH_TO_ZERO and
 *  ZORVAC_DENORMALS_ARE_ZERO. Masks and variants are as above. */
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
 *  Errors:  prints one of three messages and ends the process with status 1. The message says that
 *           the library is inconsistent if detection left no result. It says that program and
 *           library do not fit each other if features are missing and the mask has bit 0, a missing
 *           bit has no name (25), or only bits from 40 up are missing. Otherwise it lists the
 *           missing features. */
void __zorva_new_feature_proc_init(int flags, uint64_t required);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
