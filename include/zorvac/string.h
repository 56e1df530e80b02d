#ifndef ZORVAC_STRING_H
#define ZORVAC_STRING_H
/** Strings: the routines that compiled programs call for the C library's string functions, in three
 *  instruction-set levels: sse2, ssse3 and sse4 (SSE4.2). There is no dispatcher: the caller must
 *  know the processor. Calling a routine on a processor without its instructions raises the
 *  illegal-instruction signal.
 *
 *    level  members
 *    sse2   strlen strend strchr  strnlen strrchr  strcpy strncpy stpcpy stpncpy  strcat strncat
 *           strdup strncmp  strspn strcspn strpbrk strtok
 *    ssse3  strrchr  strcpy strncpy stpcpy stpncpy
 *    sse4   those of sse2, and atoi atol atoll
 *
 *  The exported routines have their own register convention (see below; docs/strings.md lists the
 *  registers of each member). For C and C++ programs, this header has an inline function for each,
 *  with the arguments of the C library's function of the same name: zorvac_sse2_strlen(string) for
 *  __zorva_sse2_strlen. strend(string) returns the address of the terminating zero.
 *
 *  For every routine here:
 *    contract   that of the C library's function, including the result, with two exceptions:
 *               overflow in atoi, atol and atoll wraps modulo 2^32 or 2^64, and a strtok(NULL, set)
 *               that has nothing to continue returns a null pointer
 *    errors     none; strdup returns a null pointer if malloc does
 *    memory     strings are read in blocks of 16 or 64 bytes; these may reach beyond a string's
 *               ends, and beyond the count or limit, but never into a page that holds none of what
 *               is to be read; nothing is written beyond the destination. strdup allocates with
 *               malloc, the others nothing
 *    threads    re-entrant, except strtok: its state belongs to the process, as in the C library,
 *               and both levels share it
 *    source     the C standard (C11), 7.24 (string.h) and 7.22.1.2 (atoi); POSIX.1-2017 for
 *               strnlen, stpcpy, stpncpy and strdup
 */
#include <stddef.h>
#include <stdint.h>

/** Registers of all members except the scan tails: RCX is the source or the string, RDX the second
 *  input (destination, other string, set, character, limit), R8 the third (count); the result is in
 *  RAX. RBX, RBP, RSI, RDI, R12 to R15 and XMM6 to XMM15 are preserved. Compilers know this as the
 *  64-bit Windows convention. There is one difference: no routine here uses the 32 bytes above its
 *  return address, so callers that are not compiled from C need not provide them. */
#define ZORVAC_STRING_CALL __attribute__((ms_abi))

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The copies may continue a copy that the caller has begun: source and destination are the
 *  positions reached. A routine that returns the destination returns the one that it was given. */
#define ZORVAC_STRING_COPIES(level)                                                         \
  ZORVAC_STRING_CALL char* __zorva_##level##_strcpy(const char* source, char* destination); \
  ZORVAC_STRING_CALL char* __zorva_##level##_stpcpy(const char* source, char* destination); \
  ZORVAC_STRING_CALL char* __zorva_##level##_strncpy(const char* source, char* destination, \
                                                     size_t count);                         \
  ZORVAC_STRING_CALL char* __zorva_##level##_stpncpy(const char* source, char* destination, \
                                                     size_t count);                         \
  ZORVAC_STRING_CALL char* __zorva_##level##_strrchr(const char* string, int character);    \
  static inline char* zorvac_##level##_strcpy(char* destination, const char* source) {      \
    return __zorva_##level##_strcpy(source, destination);                                   \
  }                                                                                         \
  static inline char* zorvac_##level##_stpcpy(char* destination, const char* source) {      \
    return __zorva_##level##_stpcpy(source, destination);                                   \
  }                                                                                         \
  static inline char* zorvac_##level##_strncpy(char* destination, const char* source,       \
                                               size_t count) {                              \
    return __zorva_##level##_strncpy(source, destination, count);                           \
  }                                                                                         \
  static inline char* zorvac_##level##_stpncpy(char* destination, const char* source,       \
                                               size_t count) {                              \
    return __zorva_##level##_stpncpy(source, destination, count);                           \
  }                                                                                         \
  static inline char* zorvac_##level##_strrchr(const char* string, int character) {         \
    return __zorva_##level##_strrchr(string, character);                                    \
  }
ZORVAC_STRING_COPIES(sse2)
ZORVAC_STRING_COPIES(ssse3)
ZORVAC_STRING_COPIES(sse4)
#undef ZORVAC_STRING_COPIES

#define ZORVAC_STRING_MEMBERS(level)                                                            \
  ZORVAC_STRING_CALL size_t __zorva_##level##_strnlen(const char* string, size_t limit);        \
  ZORVAC_STRING_CALL char* __zorva_##level##_strcat(const char* source, char* destination);     \
  ZORVAC_STRING_CALL char* __zorva_##level##_strncat(const char* source, char* destination,     \
                                                     size_t count);                             \
  ZORVAC_STRING_CALL char* __zorva_##level##_strdup(const char* string);                        \
  ZORVAC_STRING_CALL int __zorva_##level##_strncmp(const char* a, const char* b, size_t count); \
  ZORVAC_STRING_CALL size_t __zorva_##level##_strspn(const char* string, const char* set);      \
  ZORVAC_STRING_CALL size_t __zorva_##level##_strcspn(const char* string, const char* set);     \
  ZORVAC_STRING_CALL char* __zorva_##level##_strpbrk(const char* string, const char* set);      \
  ZORVAC_STRING_CALL char* __zorva_##level##_strtok(char* string, const char* set);             \
  static inline size_t zorvac_##level##_strnlen(const char* string, size_t limit) {             \
    return __zorva_##level##_strnlen(string, limit);                                            \
  }                                                                                             \
  static inline char* zorvac_##level##_strcat(char* destination, const char* source) {          \
    return __zorva_##level##_strcat(source, destination);                                       \
  }                                                                                             \
  static inline char* zorvac_##level##_strncat(char* destination, const char* source,           \
                                               size_t count) {                                  \
    return __zorva_##level##_strncat(source, destination, count);                               \
  }                                                                                             \
  static inline char* zorvac_##level##_strdup(const char* string) {                             \
    return __zorva_##level##_strdup(string);                                                    \
  }                                                                                             \
  static inline int zorvac_##level##_strncmp(const char* a, const char* b, size_t count) {      \
    return __zorva_##level##_strncmp(a, b, count);                                              \
  }                                                                                             \
  static inline size_t zorvac_##level##_strspn(const char* string, const char* set) {           \
    return __zorva_##level##_strspn(string, set);                                               \
  }                                                                                             \
  static inline size_t zorvac_##level##_strcspn(const char* string, const char* set) {          \
    return __zorva_##level##_strcspn(string, set);                                              \
  }                                                                                             \
  static inline char* zorvac_##level##_strpbrk(const char* string, const char* set) {           \
    return __zorva_##level##_strpbrk(string, set);                                              \
  }                                                                                             \
  static inline char* zorvac_##level##_strtok(char* string, const char* set) {                  \
    return __zorva_##level##_strtok(string, set);                                               \
  }
ZORVAC_STRING_MEMBERS(sse2)
ZORVAC_STRING_MEMBERS(sse4)
#undef ZORVAC_STRING_MEMBERS

/** Decimal numbers: optional white space, an optional sign, digits, then any other characters. A
 *  string without digits gives 0. A value that does not fit the result is taken modulo 2^32 (atoi)
 *  or 2^64, as two's complement, for any number of digits. */
ZORVAC_STRING_CALL int __zorva_sse4_atoi(const char* string);
ZORVAC_STRING_CALL long __zorva_sse4_atol(const char* string);
ZORVAC_STRING_CALL long long __zorva_sse4_atoll(const char* string);
static inline int zorvac_sse4_atoi(const char* string) { return __zorva_sse4_atoi(string); }
static inline long zorvac_sse4_atol(const char* string) { return __zorva_sse4_atol(string); }
static inline long long zorvac_sse4_atoll(const char* string) { return __zorva_sse4_atoll(string); }

/** Scan tails: the rest of a scan. The caller has examined the first, partial block and found
 *  nothing there. The declarations are for taking addresses; C cannot call these routines. The
 *  inline functions below do what compiled code does: they examine the first block, then call.
 *
 *    RAX   [in]  the 16-byte-aligned block already examined; the scan starts with the next
 *    RDX   [in]  strlen: the start of the string
 *    XMM1  [in]  strchr: the character in all 16 bytes (sse2), or in the first byte and zeros in
 *                the others (sse4)
 *    RAX   [out] strlen: the length; strend: the address of the terminating zero; strchr: the
 *                address of the first match, or 0
 *
 *  They change at most RAX, RCX, RDX, R8 to R11, XMM0 to XMM5 and the flags. */
void __zorva_sse2_strlen(void);
void __zorva_sse2_strend(void);
void __zorva_sse2_strchr(void);
void __zorva_sse4_strlen(void);
void __zorva_sse4_strend(void);
void __zorva_sse4_strchr(void);

#ifdef __SSE2__ /* only where vector registers may be used */

/* Calls a scan tail with RAX, RDX and XMM1 and leaves its result in rax. The stack pointer first
 * skips the 128 bytes below it, which may hold locals of the function that this is inlined into,
 * and is then aligned for a call. Its old value is kept in a register that the tails preserve; they
 * preserve all registers that are not named here. */
#define ZORVAC_CALL_SCAN_TAIL(symbol, rax, rdx, xmm1)                                            \
  do {                                                                                           \
    uintptr_t zorvac_stack;                                                                      \
    __asm__ volatile(                                                                            \
        "movdqa %[sought], %%xmm1\n\t"                                                           \
        "mov %%rsp, %[stack]\n\t"                                                                \
        "lea -128(%%rsp), %%rsp\n\t"                                                             \
        "and $-16, %%rsp\n\t"                                                                    \
        "call *" symbol                                                                          \
        "@GOTPCREL(%%rip)\n\t"                                                                   \
        "mov %[stack], %%rsp"                                                                    \
        : "+a"(rax), "+d"(rdx), [stack] "=&r"(zorvac_stack)                                      \
        : [sought] "x"(xmm1)                                                                     \
        : "rcx", "r8", "r9", "r10", "r11", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "cc", \
          "memory");                                                                             \
  } while (0)

/* The whole block is read, including bytes outside of the string, which a sanitizer would report.
 */
#define ZORVAC_READS_BLOCKS __attribute__((no_sanitize("address"), no_sanitize("thread")))

/* Sixteen bytes, in an XMM register. <emmintrin.h> is not included because it would bring in a
 * static _mm_malloc, which is not the one of <zorvac/mem.h>. */
typedef char zorvac_block __attribute__((vector_size(16), may_alias));

/* The bytes of the first block, from the start of the string on, that equal those of `sought` or
 * are zero: bit i is byte i of the string. */
ZORVAC_READS_BLOCKS static inline unsigned zorvac_in_first_block(const char* string,
                                                                 zorvac_block sought) {
  const uintptr_t skip = (uintptr_t)string % 16;
  const zorvac_block block = *(const zorvac_block*)(const void*)(string - skip);
  const zorvac_block found = (zorvac_block)((block == sought) | (block == 0));
  return (unsigned)__builtin_ia32_pmovmskb128(found) >> skip;
}

static inline zorvac_block zorvac_repeated(int character) {
  const zorvac_block none = {0};
  return none + (char)character;
}
static inline zorvac_block zorvac_alone(int character) {
  const zorvac_block first = {(char)character};
  return first;
}

#define ZORVAC_SCAN_TAILS(level, prepared)                                             \
  static inline char* zorvac_##level##_strend(const char* string) {                    \
    const unsigned ends = zorvac_in_first_block(string, zorvac_alone(0));              \
    const char* rax = string - (uintptr_t)string % 16;                                 \
    uintptr_t rdx = 0;                                                                 \
    if (ends != 0) return (char*)string + __builtin_ctz(ends);                         \
    ZORVAC_CALL_SCAN_TAIL("__zorva_" #level "_strend", rax, rdx, zorvac_alone(0));     \
    return (char*)rax;                                                                 \
  }                                                                                    \
  static inline size_t zorvac_##level##_strlen(const char* string) {                   \
    const unsigned ends = zorvac_in_first_block(string, zorvac_alone(0));              \
    const char* rax = string - (uintptr_t)string % 16;                                 \
    uintptr_t rdx = (uintptr_t)string;                                                 \
    if (ends != 0) return (size_t)__builtin_ctz(ends);                                 \
    ZORVAC_CALL_SCAN_TAIL("__zorva_" #level "_strlen", rax, rdx, zorvac_alone(0));     \
    return (size_t)rax;                                                                \
  }                                                                                    \
  static inline char* zorvac_##level##_strchr(const char* string, int character) {     \
    const unsigned stops = zorvac_in_first_block(string, zorvac_repeated(character));  \
    const char* rax = string - (uintptr_t)string % 16;                                 \
    uintptr_t rdx = 0;                                                                 \
    if (stops != 0) {                                                                  \
      const char* const stop = string + __builtin_ctz(stops);                          \
      return *stop == (char)character ? (char*)stop : NULL;                            \
    }                                                                                  \
    ZORVAC_CALL_SCAN_TAIL("__zorva_" #level "_strchr", rax, rdx, prepared(character)); \
    return (char*)rax;                                                                 \
  }
ZORVAC_SCAN_TAILS(sse2, zorvac_repeated)
ZORVAC_SCAN_TAILS(sse4, zorvac_alone)
#undef ZORVAC_SCAN_TAILS
#endif

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
