#ifndef ZORVAC_CORE_LEVELS_H
#define ZORVAC_CORE_LEVELS_H
// The processor levels that dispatchers require. Each level is the level below it plus some
// features. C++ and assembler sources share these definitions.
//
// The sets are part of the interface, not descriptions of a processor. MOVBE is in none of them.
// One AVX-512 level requires the exponential and prefetch extensions, which only one processor line
// has. Only the matrix kernels use the other AVX-512 level.
#include "zorvac/cpu.h"

// clang-format off
#define ZORVAC_INITIALISED      (ZORVAC_FEATURE_GENERIC_X86)
#define ZORVAC_BASE_LEVEL       (ZORVAC_INITIALISED | ZORVAC_FEATURE_X87 | ZORVAC_FEATURE_CMOV | \
                                 ZORVAC_FEATURE_MMX | ZORVAC_FEATURE_FXSAVE | ZORVAC_FEATURE_SSE)
#define ZORVAC_SSE2_LEVEL       (ZORVAC_BASE_LEVEL | ZORVAC_FEATURE_SSE2)
#define ZORVAC_SSE3_LEVEL       (ZORVAC_SSE2_LEVEL | ZORVAC_FEATURE_SSE3)
#define ZORVAC_SSSE3_LEVEL      (ZORVAC_SSE3_LEVEL | ZORVAC_FEATURE_SSSE3)
#define ZORVAC_SSE4_1_LEVEL     (ZORVAC_SSSE3_LEVEL | ZORVAC_FEATURE_SSE4_1)
#define ZORVAC_SSE4_2_LEVEL     (ZORVAC_SSE4_1_LEVEL | ZORVAC_FEATURE_SSE4_2 | \
                                 ZORVAC_FEATURE_POPCNT)
#define ZORVAC_AVX_LEVEL        (ZORVAC_SSE4_2_LEVEL | ZORVAC_FEATURE_AVX)
#define ZORVAC_F16C_LEVEL       (ZORVAC_AVX_LEVEL | ZORVAC_FEATURE_F16C)
#define ZORVAC_AVX2_LEVEL       (ZORVAC_F16C_LEVEL | ZORVAC_FEATURE_FMA | ZORVAC_FEATURE_BMI | \
                                 ZORVAC_FEATURE_LZCNT | ZORVAC_FEATURE_AVX2)
#define ZORVAC_AVX512_ERPF_LEVEL                                                            \
                                (ZORVAC_AVX2_LEVEL | ZORVAC_FEATURE_AVX512F |               \
                                 ZORVAC_FEATURE_ADX | ZORVAC_FEATURE_RDSEED |               \
                                 ZORVAC_FEATURE_AVX512ER | ZORVAC_FEATURE_AVX512PF |        \
                                 ZORVAC_FEATURE_AVX512CD)
#define ZORVAC_AVX512_DQ_VL_LEVEL                                                           \
                                (ZORVAC_AVX2_LEVEL | ZORVAC_FEATURE_AVX512F |               \
                                 ZORVAC_FEATURE_AVX512DQ | ZORVAC_FEATURE_AVX512VL)
// clang-format on
#endif
