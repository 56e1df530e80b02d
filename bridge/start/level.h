/* The instruction sets that the compiler may use, as a word in a section of its object file.
 *
 * zorvac.specs, or -include, puts this file before each source of a program. It includes nothing
 * and defines one name, which is local to the object. zorvac.specs compiles it again when the
 * program is linked: that word has the features of the link command's options. The check in level.o
 * reads the words before the program's first constructor runs. */
#ifndef ZORVAC_LEVEL_H
#define ZORVAC_LEVEL_H
#pragma GCC system_header
#if !defined __x86_64__ || defined __ILP32__
#error "zorvac.specs and zorvac/level.h are for 64-bit x86 programs only"
#endif

#ifdef ZORVAC_LEVEL_OF_LINK
#define ZORVAC_LEVEL_SECTION "zorvac_level_of_link"
#else
#define ZORVAC_LEVEL_SECTION "zorvac_level_of_files"
#endif

/* clang-format off */
/* The bits of the feature indicator (ZORVAC_FEATURE_... of zorvac/cpu.h) whose instructions fault
 * on a processor without them. HLE is left out, because such a processor ignores its prefixes. BMI1
 * and BMI2 share a bit, which is set if the compiler may use both: some processors have only BMI1.
 */
static const __UINT64_TYPE__ zorvac_level_of_this_file
    __attribute__((__section__(ZORVAC_LEVEL_SECTION), __used__, __retain__)) = 0
#ifdef __SSE3__
    | 1ull << 7
#endif
#ifdef __SSSE3__
    | 1ull << 8
#endif
#ifdef __SSE4_1__
    | 1ull << 9
#endif
#ifdef __SSE4_2__
    | 1ull << 10
#endif
#ifdef __MOVBE__
    | 1ull << 11
#endif
#ifdef __POPCNT__
    | 1ull << 12
#endif
#ifdef __PCLMUL__
    | 1ull << 13
#endif
#ifdef __AES__
    | 1ull << 14
#endif
#ifdef __F16C__
    | 1ull << 15
#endif
#ifdef __AVX__
    | 1ull << 16
#endif
#ifdef __RDRND__
    | 1ull << 17
#endif
#ifdef __FMA__
    | 1ull << 18
#endif
#if defined __BMI__ && defined __BMI2__
    | 1ull << 19
#endif
#ifdef __LZCNT__
    | 1ull << 20
#endif
#ifdef __RTM__
    | 1ull << 22
#endif
#ifdef __AVX2__
    | 1ull << 23
#endif
#ifdef __AVX512DQ__
    | 1ull << 24
#endif
#ifdef __AVX512F__
    | 1ull << 27
#endif
#ifdef __ADX__
    | 1ull << 28
#endif
#ifdef __RDSEED__
    | 1ull << 29
#endif
#ifdef __AVX512IFMA__
    | 1ull << 30
#endif
#ifdef __AVX512ER__
    | 1ull << 32
#endif
#ifdef __AVX512PF__
    | 1ull << 33
#endif
#ifdef __AVX512CD__
    | 1ull << 34
#endif
#ifdef __SHA__
    | 1ull << 35
#endif
#ifdef __AVX512BW__
    | 1ull << 37
#endif
#ifdef __AVX512VL__
    | 1ull << 38
#endif
#ifdef __AVX512VBMI__
    | 1ull << 39
#endif
    ;
/* clang-format on */
#undef ZORVAC_LEVEL_SECTION
#endif
