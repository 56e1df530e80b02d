#ifndef ZORVAC_QUAD_H
#define ZORVAC_QUAD_H
/** Arithmetic on 128-bit floating-point numbers ("quads", IEEE 754 binary128), on complex quads and
 *  128-bit integers, and one view of the floating-point control and status registers.
 *
 *  For every routine, unless it says otherwise:
 *
 *  Shape:     a quad is 16 bytes, aligned to 8, little-endian (IEEE 754-2019, 3.4):
 *
 *               bit 127   126 .. 112                 111 .. 0
 *               sign      exponent, bias 16383       fraction (leading 1 of normal numbers implied)
 *
 *             A NaN is quiet when bit 111 is set. A complex quad is 32 bytes, the real part first.
 *             Quads are passed by address, the destination first. A routine with a destination
 *             returns nothing. It reads its operands before it writes the destination, so the
 *             destination may be an operand. Integers and smaller floating-point numbers are
 *             passed and returned by value as the platform does (long double: on the stack, and
 *             returned in ST(0); a 128-bit integer: two registers, low word first).
 *  Rounding:  by the MXCSR rounding control at the time of the call (IEEE 754-2019, 4.3). The x87
 *             control word is ignored.
 *  Flags:     raised in MXCSR by real double-precision operations, and added to the flags already
 *             set. Nothing else in MXCSR changes. An exception that the program has unmasked
 *             traps inside the call. The denormal-operand flag is the processor's and not in IEEE
 *             754. (The operation that raises it has a tiny result: if underflow is unmasked, a
 *             subnormal operand traps as underflow. If MXCSR has flush-to-zero set and
 *             denormals-are-zero clear, it raises UE and PE too. If denormals-are-zero is set, DE
 *             is not raised, and the product of two subnormal numbers raises nothing. The flush
 *             modes do not change results.) Abbreviated below: IE invalid, DE denormal operand,
 *             ZE division by zero, OE overflow, UE underflow (tininess is detected after
 *             rounding), PE inexact.
 *  NaN:       an operation with a NaN operand returns that NaN, quieted, with its sign and payload.
 *             If both operands are NaNs, it is the quiet one; if both are quiet or both signalling,
 *             the one whose magnitude, taken as an integer, is larger; if these are equal, b if a
 *             is positive, else a. A signalling NaN raises IE. An invalid operation without a NaN
 *             operand gives the negative quiet NaN 0xFFFF8000000000000000000000000000.
 *  Errors:    none returned.
 *  Threads:   re-entrant. Registers: System V AMD64. Memory: allocates nothing.
 *
 *  <zorvac/quad.hpp> has a C++ value type over these routines.
 */
#include <stdint.h>

/** 128-bit integers, the letters n and m in names. */
__extension__ typedef unsigned __int128 zorvac_uint128_t;
__extension__ typedef __int128 zorvac_int128_t;

/** Rounding of __qtoi() and __qtoj(), by argument instead of by MXCSR. */
enum {
  ZORVAC_TO_INT_TOWARD_ZERO = 0,
  ZORVAC_TO_INT_NEAREST = 1, /**< ties to even */
  ZORVAC_TO_INT_DOWN = 2,
  ZORVAC_TO_INT_UP = 3
};

/** The processor-independent status and control words of _statusfp(), _controlfp() and so on.
 *
 *  In a status word an exception's bit means that it has occurred, in a control word that it is
 *  masked. The flush modes are a code of two bits, not two flags. */
enum {
  ZORVAC_FP_INEXACT = 0x00000001,
  ZORVAC_FP_UNDERFLOW = 0x00000002,
  ZORVAC_FP_OVERFLOW = 0x00000004,
  ZORVAC_FP_DIVIDE_BY_ZERO = 0x00000008,
  ZORVAC_FP_INVALID = 0x00000010,
  ZORVAC_FP_DENORMAL = 0x00080000,

  ZORVAC_FP_ROUNDING = 0x00000300, /**< the field; its values: */
  ZORVAC_FP_TO_NEAREST = 0x00000000,
  ZORVAC_FP_DOWN = 0x00000100,
  ZORVAC_FP_UP = 0x00000200,
  ZORVAC_FP_TOWARD_ZERO = 0x00000300,

  ZORVAC_FP_PRECISION = 0x00030000, /**< the field, of the x87 alone; its values: */
  ZORVAC_FP_64_BITS = 0x00000000,
  ZORVAC_FP_53_BITS = 0x00010000,
  ZORVAC_FP_24_BITS = 0x00020000,

  ZORVAC_FP_FLUSH = 0x03000000, /**< the field, of MXCSR alone; its values: */
  ZORVAC_FP_FLUSH_NOTHING = 0x00000000,
  ZORVAC_FP_FLUSH_BOTH = 0x01000000,     /**< flush-to-zero and denormals-are-zero */
  ZORVAC_FP_FLUSH_OPERANDS = 0x02000000, /**< denormals-are-zero */
  ZORVAC_FP_FLUSH_RESULTS = 0x03000000   /**< flush-to-zero */
};

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Arithmetic ------------------------------------------------------------------------------ */

/** *sum = *a + *b and *difference = *a - *b.
 *
 *  Flags:  IE signalling NaN or infinities that cancel; DE subnormal operand; OE and PE overflow;
 *          PE inexact. A subnormal result is exact and raises no UE.
 *  Zero:   an exact zero from operands that cancel is +0, or -0 when rounding down.
 *  Source: IEEE 754-2019, 5.4.1 (operations), 6.1 to 6.3 (infinity, NaN, sign), 7 (exceptions). */
void __addq(void* sum, const void* a, const void* b);
void __subq(void* difference, const void* a, const void* b);

/** *negated = -*a: flips the sign bit of any operand, NaNs included. Rounding, flags: none.
 *  Source: IEEE 754-2019, 5.5.1 (sign bit operations). */
void __negq(void* negated, const void* a);

/** *product = *a * *b.
 *
 *  Flags:  IE signalling NaN or zero times infinity; DE subnormal operand; OE and PE overflow; UE
 *          and PE result tiny and inexact; UE alone result tiny, exact, and underflow unmasked;
 *          PE inexact.
 *  Names:  dispatches on the processor's features to `__mulq.L` or `__mulq.A`. Both are exported
 *          and give the same results. They may be called directly (by an assembler label).
 *  Source: IEEE 754-2019, 5.4.1, 6.1 to 6.3, 7. */
void __mulq(void* product, const void* a, const void* b);

/** *quotient = *a / *b. Names, source: as __mulq().
 *
 *  Flags:  IE signalling NaN, 0/0 or infinity/infinity; ZE finite non-zero by zero; otherwise as
 *          __mulq(), except that an exact subnormal quotient of equal significands raises nothing,
 *          even with underflow unmasked. */
void __divq(void* quotient, const void* a, const void* b);

/* ---- Comparison ------------------------------------------------------------------------------ */

/** *a == *b and *a != *b as 1 or 0. A NaN equals nothing; +0 equals -0.
 *  Rounding, flags: none, not even for signalling NaNs.
 *  Source: IEEE 754-2019, 5.11 (the quiet predicates; here silent for signalling NaNs too). */
int __eqq(const void* a, const void* b);
int __neq(const void* a, const void* b);

/** *a < *b, *a <= *b, *a > *b, *a >= *b as 1 or 0; 0 if either is a NaN.
 *  Rounding: none. Flags: IE if either is a NaN, quiet or signalling.
 *  Source: IEEE 754-2019, 5.11 (the signalling predicates). */
int __ltq(const void* a, const void* b);
int __leq(const void* a, const void* b);
int __gtq(const void* a, const void* b);
int __geq(const void* a, const void* b);

/** -1 if *a < *b, 1 if *a > *b, 0 if they are equal or either is a NaN.
 *  Flags, source: as __ltq(). compareq() forwards to __compareq(). */
int __compareq(const void* a, const void* b);
int compareq(const void* a, const void* b);

/* ---- Conversions ----------------------------------------------------------------------------- */
/* Letters in names: i, u int32_t and uint32_t; j, k int64_t and uint64_t; m, n 128-bit integers,
 * signed and unsigned; f float; d double; l long double (x87); q quad. */

/** *q = value: exact, no flags, no rounding.
 *  Source: IEEE 754-2019, 5.4.1 (convertFromInt). */
void __itoq(void* q, int32_t value);
void __utoq(void* q, uint32_t value);
void __jtoq(void* q, int64_t value);
void __ktoq(void* q, uint64_t value);

/** *q = value: exact, no flags, no rounding. A signalling NaN stays signalling.
 *  Source: IEEE 754-2019, 5.4.2 (convertFormat; a signalling NaN is only repacked here). */
void __ftoq(void* q, float value);
void __dtoq(void* q, double value);

/** *q = value: exact, no rounding. Unless the value is normal, it goes through one x87
 *  multiplication by 1 at full precision, which quiets a signalling NaN and raises the x87's (not
 *  MXCSR's) flags: IE for a signalling NaN, DE for a subnormal. The x87 control word is restored.
 *  Source: IEEE 754-2019, 5.4.2 (convertFormat). */
void __ltoq(void* q, long double value);

/** *q as a signed integer, rounded by the mode argument (ZORVAC_TO_INT_...; MXCSR is ignored).
 *  Any other mode rounds away from zero in __qtoi() and toward zero in __qtoj().
 *
 *  Errors: a NaN, an infinity or a value out of range gives the most negative integer.
 *  Flags:  IE with that; PE inexact.
 *  Source: IEEE 754-2019, 5.8 (conversions to integer, the forms that signal inexact). */
int32_t __qtoi(const void* q, int mode);
int64_t __qtoj(const void* q, int mode);

/** *q as an unsigned integer, always truncated (MXCSR is ignored).
 *
 *  Errors: a NaN, an infinity, a value of at least 2^33 (__qtou) or 2^64 (__qtok), or of at most
 *          -1 gives 0x80000000 or 0x8000000000000000. A value from 2^32 to below 2^33 is no error
 *          in __qtou(): it wraps modulo 2^32 and raises PE if it is inexact.
 *  Flags:  IE with an error; PE inexact.
 *  Source: IEEE 754-2019, 5.8. */
uint32_t __qtou(const void* q);
uint64_t __qtok(const void* q);

/** *q rounded to a smaller format by MXCSR, also to long double. A NaN keeps its sign and the top
 *  of its payload and is quieted.
 *
 *  Flags:  IE signalling NaN; DE subnormal quad; OE and PE overflow; UE and PE result tiny and
 *          inexact; PE inexact.
 *  Source: IEEE 754-2019, 5.4.2 (convertFormat), 7. */
float __qtof(const void* q);
double __qtod(const void* q);
long double __qtol(const void* q);

/** A value as an unsigned (n) or signed (m) 128-bit integer, always truncated (MXCSR is ignored).
 *
 *  Errors: a NaN, an infinity, a magnitude of at least 2^128 (n) or 2^127 (m; also -2^127), and for
 *          n any value of at most -1 give 2^127, which is the most negative signed integer.
 *          An 80-bit number with an exponent but without its leading one, which is invalid to
 *          processors, is converted as if it had the leading one.
 *  Flags:  IE with an error; PE inexact. Subnormal operands raise no DE.
 *  Source: IEEE 754-2019, 5.8. */
zorvac_uint128_t __fton(float value);
zorvac_uint128_t __dton(double value);
zorvac_uint128_t __lton(long double value);
zorvac_uint128_t __qton(const void* q);
zorvac_int128_t __ftom(float value);
zorvac_int128_t __dtom(double value);
zorvac_int128_t __ltom(long double value);
zorvac_int128_t __qtom(const void* q);

/** An unsigned (n) or signed (m) 128-bit integer as a floating-point number, rounded by MXCSR, also
 *  to long double.
 *
 *  Flags:  none, not even PE for an inexact result. Above 2^128 - 2^104, the largest float, an
 *          unsigned integer may round to infinity as a float, also without a flag.
 *  Source: IEEE 754-2019, 5.4.1 (convertFromInt; here without the inexact exception). */
float __ntof(zorvac_uint128_t value);
double __ntod(zorvac_uint128_t value);
long double __ntol(zorvac_uint128_t value);
void __ntoq(void* q, zorvac_uint128_t value);
float __mtof(zorvac_int128_t value);
double __mtod(zorvac_int128_t value);
long double __mtol(zorvac_int128_t value);
void __mtoq(void* q, zorvac_int128_t value);

/* ---- Alternate entry points ------------------------------------------------------------------ */

/** The same routines under other names. Each jumps to its target through the dynamic symbol: a
 *  program that defines __addq() changes a_addq() too. */
void a_addq(void* sum, const void* a, const void* b);        /**< __addq() */
void a_subq(void* difference, const void* a, const void* b); /**< __subq() */
void a_mulq(void* product, const void* a, const void* b);    /**< __mulq() */
void a_divq(void* quotient, const void* a, const void* b);   /**< __divq() */
void a_negq(void* negated, const void* a);                   /**< __negq() */
int a_eqq(const void* a, const void* b);                     /**< __eqq() */
int a_neq(const void* a, const void* b);                     /**< __neq() */
int a_ltq(const void* a, const void* b);                     /**< __ltq() */
int a_leq(const void* a, const void* b);                     /**< __leq() */
int a_gtq(const void* a, const void* b);                     /**< __gtq() */
int a_geq(const void* a, const void* b);                     /**< __geq() */
void a_itoq(void* q, int32_t value);                         /**< __itoq() */
void a_jtoq(void* q, int64_t value);                         /**< __jtoq() */
void a_ftoq(void* q, float value);                           /**< __ftoq() */
void a_dtoq(void* q, double value);                          /**< __dtoq() */
int32_t a_qtoi(const void* q, int mode);                     /**< __qtoi() */
int64_t a_qtoj(const void* q, int mode);                     /**< __qtoj() */
float a_qtof(const void* q);                                 /**< __qtof() */
double a_qtod(const void* q);                                /**< __qtod() */
long double a_qtol(const void* q);                           /**< __qtol() */

/** An integer of 8 (c) or 16 (s) bits, signed: the low bits of `value` are extended and passed to
 *  __itoq(). The bits above them are ignored. */
void a_ctoq(void* q, int value);
void a_stoq(void* q, int value);

/** __ltoq(). Before that, the argument is loaded into the x87 and stored back in place, which
 *  changes no 80-bit value. */
void a_ltoq(void* q, long double value);

/** __qtoi() for callers that keep the low 8 (c) or 16 (s) bits of what it returns. */
int32_t a_qtoc(const void* q, int mode);
int32_t a_qtos(const void* q, int mode);

/* ---- Complex quads --------------------------------------------------------------------------- */
/* These call the routines above through their dynamic symbols. Every step rounds and raises its
 * flags by itself. Infinities and NaNs are not corrected as in C's Annex G. An operand is two
 * addresses, of the real and the imaginary part; a destination is one address of 32 bytes. */

/** *sum = (*ar + *br, *ai + *bi), and likewise the difference. The real part is written before the
 *  imaginary operands are read: the destination may be a itself or b itself, but its real part may
 *  not be ai or bi. */
void __caddq(void* sum, const void* ar, const void* ai, const void* br, const void* bi);
void __csubq(void* difference, const void* ar, const void* ai, const void* br, const void* bi);
void a_caddq(void* sum, const void* ar, const void* ai, const void* br, const void* bi);
void a_csubq(void* difference, const void* ar, const void* ai, const void* br, const void* bi);

/** *product = (ar br - ai bi, ar bi + ai br), from four rounded products. The destination may
 *  overlap any operand. */
void __cmulq(void* product, const void* ar, const void* ai, const void* br, const void* bi);
void a_cmulq(void* product, const void* ar, const void* ai, const void* br, const void* bi);

/** *quotient = ((ar br + ai bi) r, (ai br - ar bi) r) with r = 1 / (br br + bi bi). The destination
 *  may overlap any operand. There is no scaling: if a part of b is above about 2^8191 in magnitude,
 *  the sum of squares overflows, and the quotient becomes zero or NaN. */
void __cdivq(void* quotient, const void* ar, const void* ai, const void* br, const void* bi);
void a_cdivq(void* quotient, const void* ar, const void* ai, const void* br, const void* bi);

/** *negated = (-*ar, -*ai): both sign bits flipped. The real part is written before *ai is read.
 *  Rounding, flags: none. */
void __cnegq(void* negated, const void* ar, const void* ai);
void a_cnegq(void* negated, const void* ar, const void* ai);

/** a == b and a != b as numbers, 1 or 0: a NaN part makes them unequal, +0 equals -0. No flags. */
int __ceqq(const void* ar, const void* ai, const void* br, const void* bi);
int __cneq(const void* ar, const void* ai, const void* br, const void* bi);

/** a == b and a != b bit for bit, 1 or 0: unlike the two above, +0 and -0 differ and a NaN equals
 *  itself. No flags. */
int a_ceqq(const void* ar, const void* ai, const void* br, const void* bi);
int a_cneq(const void* ar, const void* ai, const void* br, const void* bi);

/** To a complex quad. Exact; flags: none. */
void a_ctocq(void* q, const void* value);  /**< from two floats, by __ftoq() */
void a_cdtocq(void* q, const void* value); /**< from two doubles, by __dtoq() */
void a_ftocq(void* q, float value);        /**< imaginary part +0 */
void a_dtocq(void* q, double value);       /**< imaginary part +0 */
void a_itocq(void* q, int32_t value);      /**< imaginary part +0 */
void a_jtocq(void* q, int64_t value);      /**< imaginary part +0 */
void a_chtocq(void* q, int value);         /**< the low 8 bits, signed; imaginary part +0 */

/** To a complex quad, of which bytes 16 to 19 do not change. Bytes 0 to 3 (the lowest 32 fraction
 *  bits of the real part) and 20 to 31 become zero. An integer has no fraction bits there; a quad
 *  loses them. Flags: none. */
void a_stocq(void* q, int value); /**< the low 16 bits, signed */
void a_qtocq(void* q, const void* real);

/** From a complex quad at one address. Rounding and flags: those of __qtof(), __qtod(), and of
 *  __qtoi() and __qtoj() with ZORVAC_TO_INT_TOWARD_ZERO. The routines with two results store the
 *  first before they read the second part. */
void a_cqtoq(void* real, const void* q);   /**< the real part, copied */
void a_cqtoc(void* value, const void* q);  /**< to two floats */
void a_cqtocd(void* value, const void* q); /**< to two doubles */
float a_cqtof(const void* q);              /**< the real part, like all routines below */
double a_cqtod(const void* q);
int32_t a_cqtoi(const void* q);
int32_t a_cqtoch(const void* q); /**< the caller keeps 8 bits */
int32_t a_cqtos(const void* q);  /**< the caller keeps 16 bits */
int64_t a_cqtoj(const void* q);

/* ---- The floating-point environment ---------------------------------------------------------- */
/* The calling thread's MXCSR, and its x87 control and status words. */

/** The exceptions that have occurred, as ZORVAC_FP_INEXACT to ZORVAC_FP_DENORMAL, from MXCSR and
 *  from the x87 status word. Source: IEEE 754-2019, 5.7.4 (operations on subsets of flags). */
uint32_t _statusfp(void);
uint32_t _status87(void);

/** The same, and then clears the exception flags of both registers. A pending unmasked x87
 *  exception is dropped. (_status87() waits: there it traps, as in most x87 instructions.) */
uint32_t _clearfp(void);
uint32_t _clear87(void);

/** Changes fields of the control word in both registers and returns the new word.
 *
 *  value, mask  [in] the fields that are set in `mask` are taken from `value`. A field of two bits
 *                    (ZORVAC_FP_ROUNDING, ZORVAC_FP_PRECISION, ZORVAC_FP_FLUSH) does not change if
 *                    `mask` has only one of its bits. Precision 0x30000 changes nothing.
 *  returns           exception masks, rounding, precision, flush modes. A mask of 0 only reads.
 *
 *  _controlfp() does not change the denormal mask, and returns exception masks and rounding from
 *  MXCSR. _control87() changes it too, and returns them from the x87 control word.
 *
 *  Errors: a denormals-are-zero mode faults on a processor without it. If an x87 exception whose
 *          flag is set is unmasked, it traps at the next waiting x87 instruction.
 *  Source: IEEE 754-2019, 9.3 (dynamic modes); the processor makers' architecture manuals. */
uint32_t _controlfp(uint32_t value, uint32_t mask);
uint32_t _control87(uint32_t value, uint32_t mask);

/** Stores the whole x87 state (FNSAVE: 108 bytes) and reinitialises the x87; loads it (FRSTOR). */
void save_fp_state(void* state);
void restore_fp_state(const void* state);

/** Store the x87 status word or control word (16 bits), and load the control word. */
void get_fp_statusword(void* status);
void get_fp_controlword(void* control);
void set_fp_controlword(const void* control);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
