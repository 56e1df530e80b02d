#ifndef ZORVAC_CPU_H
#define ZORVAC_CPU_H
/** Processor identification: feature indicators, the legacy class indicator, cache sizes.
 *
 *  Every processor-specific choice, in the library and in compiled programs, tests a mask against
 *  the feature indicator. The pattern is always the same: if all bits of a mask are set, take the
 *  variant that needs them; otherwise, if bit 0 is set, take the fallback; otherwise call
 *  __zorva_cpu_features_init() and test again.
 *
 *  C (C99 and later), C++ (C++11 and later) and assembler source may include this header. Assembler
 *  sources get only the feature bits.
 */

/** ZORVAC_FEATURE_AVX2 and so on: the mask of each feature in the indicator words. In C and C++
 *  these are constants of type uint64_t, which may also be used in #if; in assembler they are plain
 *  numbers.
 *
 *  A bit is set only if the operating system has also enabled the register state that the feature
 *  needs. Detection never sets bits 25 and 26. Bits 40 to 63 do not exist.
 *  Source of the bits: the CPUID instruction's leaves 1, 7 and 0x80000001 as documented in the
 *  processor makers' architecture manuals. */
#ifdef __ASSEMBLER__
#define ZORVAC_FEATURE_BIT(bit) (1 << (bit))
#else
#include <stdint.h>
#define ZORVAC_FEATURE_BIT(bit) (UINT64_C(1) << (bit))
#endif
#define ZORVAC_FEATURE_GENERIC_X86 ZORVAC_FEATURE_BIT(0)
#define ZORVAC_FEATURE_X87 ZORVAC_FEATURE_BIT(1)
#define ZORVAC_FEATURE_CMOV ZORVAC_FEATURE_BIT(2)
#define ZORVAC_FEATURE_MMX ZORVAC_FEATURE_BIT(3)
#define ZORVAC_FEATURE_FXSAVE ZORVAC_FEATURE_BIT(4)
#define ZORVAC_FEATURE_SSE ZORVAC_FEATURE_BIT(5)
#define ZORVAC_FEATURE_SSE2 ZORVAC_FEATURE_BIT(6)
#define ZORVAC_FEATURE_SSE3 ZORVAC_FEATURE_BIT(7)
#define ZORVAC_FEATURE_SSSE3 ZORVAC_FEATURE_BIT(8)
#define ZORVAC_FEATURE_SSE4_1 ZORVAC_FEATURE_BIT(9)
#define ZORVAC_FEATURE_SSE4_2 ZORVAC_FEATURE_BIT(10)
#define ZORVAC_FEATURE_MOVBE ZORVAC_FEATURE_BIT(11)
#define ZORVAC_FEATURE_POPCNT ZORVAC_FEATURE_BIT(12)
#define ZORVAC_FEATURE_PCLMULQDQ ZORVAC_FEATURE_BIT(13)
#define ZORVAC_FEATURE_AES ZORVAC_FEATURE_BIT(14)
#define ZORVAC_FEATURE_F16C ZORVAC_FEATURE_BIT(15)
#define ZORVAC_FEATURE_AVX ZORVAC_FEATURE_BIT(16)
#define ZORVAC_FEATURE_RDRND ZORVAC_FEATURE_BIT(17)
#define ZORVAC_FEATURE_FMA ZORVAC_FEATURE_BIT(18)
#define ZORVAC_FEATURE_BMI ZORVAC_FEATURE_BIT(19)
#define ZORVAC_FEATURE_LZCNT ZORVAC_FEATURE_BIT(20)
#define ZORVAC_FEATURE_HLE ZORVAC_FEATURE_BIT(21)
#define ZORVAC_FEATURE_RTM ZORVAC_FEATURE_BIT(22)
#define ZORVAC_FEATURE_AVX2 ZORVAC_FEATURE_BIT(23)
#define ZORVAC_FEATURE_AVX512DQ ZORVAC_FEATURE_BIT(24)
#define ZORVAC_FEATURE_UNNAMED_25 ZORVAC_FEATURE_BIT(25)
#define ZORVAC_FEATURE_QRTNI ZORVAC_FEATURE_BIT(26)
#define ZORVAC_FEATURE_AVX512F ZORVAC_FEATURE_BIT(27)
#define ZORVAC_FEATURE_ADX ZORVAC_FEATURE_BIT(28)
#define ZORVAC_FEATURE_RDSEED ZORVAC_FEATURE_BIT(29)
#define ZORVAC_FEATURE_AVX512IFMA52 ZORVAC_FEATURE_BIT(30)
#define ZORVAC_FEATURE_FULLY_INORDER_PROCESSOR ZORVAC_FEATURE_BIT(31)
#define ZORVAC_FEATURE_AVX512ER ZORVAC_FEATURE_BIT(32)
#define ZORVAC_FEATURE_AVX512PF ZORVAC_FEATURE_BIT(33)
#define ZORVAC_FEATURE_AVX512CD ZORVAC_FEATURE_BIT(34)
#define ZORVAC_FEATURE_SHA ZORVAC_FEATURE_BIT(35)
#define ZORVAC_FEATURE_MPX ZORVAC_FEATURE_BIT(36)
#define ZORVAC_FEATURE_AVX512BW ZORVAC_FEATURE_BIT(37)
#define ZORVAC_FEATURE_AVX512VL ZORVAC_FEATURE_BIT(38)
#define ZORVAC_FEATURE_AVX512VBMI ZORVAC_FEATURE_BIT(39)

/** The same as a table, one row for each bit: X(bit, identifier, name in messages). */
#define ZORVAC_FEATURES(X)                                  \
  X(0, GENERIC_X86, "GENERIC_X86")                          \
  X(1, X87, "X87")                                          \
  X(2, CMOV, "CMOV")                                        \
  X(3, MMX, "MMX")                                          \
  X(4, FXSAVE, "FXSAVE")                                    \
  X(5, SSE, "SSE")                                          \
  X(6, SSE2, "SSE2")                                        \
  X(7, SSE3, "SSE3")                                        \
  X(8, SSSE3, "SSSE3")                                      \
  X(9, SSE4_1, "SSE4_1")                                    \
  X(10, SSE4_2, "SSE4_2")                                   \
  X(11, MOVBE, "MOVBE")                                     \
  X(12, POPCNT, "POPCNT")                                   \
  X(13, PCLMULQDQ, "PCLMULQDQ")                             \
  X(14, AES, "AES")                                         \
  X(15, F16C, "F16C")                                       \
  X(16, AVX, "AVX")                                         \
  X(17, RDRND, "RDRND")                                     \
  X(18, FMA, "FMA")                                         \
  X(19, BMI, "BMI")                                         \
  X(20, LZCNT, "LZCNT")                                     \
  X(21, HLE, "HLE")                                         \
  X(22, RTM, "RTM")                                         \
  X(23, AVX2, "AVX2")                                       \
  X(24, AVX512DQ, "AVX512DQ")                               \
  X(25, UNNAMED_25, "")                                     \
  X(26, QRTNI, "QRTNI")                                     \
  X(27, AVX512F, "AVX512F")                                 \
  X(28, ADX, "ADX")                                         \
  X(29, RDSEED, "RDSEED")                                   \
  X(30, AVX512IFMA52, "AVX512IFMA52")                       \
  X(31, FULLY_INORDER_PROCESSOR, "FULLY INORDER PROCESSOR") \
  X(32, AVX512ER, "AVX512ER")                               \
  X(33, AVX512PF, "AVX512PF")                               \
  X(34, AVX512CD, "AVX512CD")                               \
  X(35, SHA, "SHA")                                         \
  X(36, MPX, "MPX")                                         \
  X(37, AVX512BW, "AVX512BW")                               \
  X(38, AVX512VL, "AVX512VL")                               \
  X(39, AVX512VBMI, "AVX512VBMI")

#ifndef __ASSEMBLER__
#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Features of this processor; the word that every dispatch tests. It is 0 until detection has run;
 *  then bit 0 is set. It is exactly 1 on a processor of another vendor than the one the library was
 *  built for, and on one without CPUID leaf 1. Read it directly. In the library only detection
 *  writes it; a program may store a mask of its own, which every later dispatch then uses. */
extern uint64_t __zorva_cpu_feature_indicator;

/** The same word for a processor of any vendor. __zorva_cpu_features_init_x() fills it, and on a
 *  processor of the accepted vendor __zorva_cpu_features_init() does too. 0 until then. */
extern uint64_t __zorva_cpu_feature_indicator_x;

/** Class of this processor, for older dispatch code. 0 until __zorva_cpu_indicator_init() has run,
 *  then exactly one bit: 0x1 generic, 0x800 SSE3, 0x1000 SSSE3, 0x4000 MOVBE without SSE4.1,
 *  0x2000 SSE4.1, 0x8000 SSE4.2 and POPCNT, 0x10000 PCLMULQDQ and AES, 0x20000 AVX, 0x40000 AVX
 *  and F16C, 0x200000 AVX2 with BMI, LZCNT, FMA, HLE and RTM, 0x800000 ADX and RDSEED, 0x2000000
 *  AVX-512 F CD ER PF, 0x4000000 AVX-512 F DQ BW VL. The library itself never reads it. */
extern uint32_t __zorva_cpu_indicator;

/** Detects the processor's features, with the vendor test, and stores the indicator word(s).
 *
 *  Registers: changes at most R10, R11 and the flags. It preserves every other integer register and
 *             every vector and mask register, so a dispatch stub may call it between receiving and
 *             forwarding its arguments.
 *  Threads:   any thread, any number of times; every call stores the same whole words.
 *  Errors:    none. */
void __zorva_cpu_features_init(void);

/** Detects the features of a processor of any vendor and stores them into
 *  __zorva_cpu_feature_indicator_x only. On a processor without CPUID leaf 1 that word stays as it
 *  is, and __zorva_cpu_feature_indicator becomes 1. Registers, threads, errors: as above. */
void __zorva_cpu_features_init_x(void);

/** Computes the processor's class and stores it into __zorva_cpu_indicator. Independent of the
 *  feature indicators. Registers, threads, errors: as __zorva_cpu_features_init(). */
void __zorva_cpu_indicator_init(void);

/** A dispatch stub calls this if it has no code for the processor's class. Ends the process by
 *  writing to address zero, without a message. Does not return. */
void __zorva_cpu_dispatch_fail(void) __attribute__((noreturn));

/** Size in KB of this processor's data or unified cache at a level.
 *
 *  level   1, 2 or 3
 *  returns KB (1024 bytes); 0 for any other level, a level that does not exist, or a processor
 *          of another vendor than the one the library was built for
 *  Threads: re-entrant. Registers: System V AMD64. Memory: allocates nothing.
 *  Source:  CPUID leaf 4, or the descriptor bytes of leaf 2 through the makers' published table. */
uint32_t __cacheSize(uint32_t level);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif /* __ASSEMBLER__ */
#endif
