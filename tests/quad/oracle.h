#ifndef ZORVAC_TESTS_QUAD_ORACLE_H
#define ZORVAC_TESTS_QUAD_ORACLE_H
// The quad routines' contract as a model over MPFR: the value and the MXCSR flags of every
// operation and conversion. Rounding is MPFR's; the choice of a NaN, the denormal-operand flag
// and the answers for unrepresentable integers, which MPFR knows nothing of, are spelled out.
#include "binary128.h"

namespace zorvac::test::oracle {

// A binary format, its value right-aligned in 128 bits: sign, exponent, significand.
struct format {
  int precision;  // significand bits, the leading one included
  int exponent_bits;
  bool leading_one_stored;  // as the x87's format does
};
inline constexpr format binary32{24, 8, false}, binary64{53, 11, false}, x87{64, 15, true},
    binary128{113, 15, false};

enum class operation { add, subtract, multiply, divide };
answer arithmetic(operation o, bits a, bits b, rounding mode);

enum class order { less, equal, greater, unordered };
order compare(bits a, bits b);

// Between floating formats. Widening never raises a flag and leaves NaNs signalling; narrowing
// rounds, quiets, and raises.
answer widen(format from, uint128 value);
answer narrow(format to, bits value, rounding mode);

// To integers, by the modes of the routines' argument: 0 toward zero, 1 nearest even, 2 down, 3 up;
// anything else is away from zero for 32 bits and toward zero for 64. Two ranges are not those of
// their types: unsigned 32 bits take one binade more, which wraps, and signed 128 bits leave out
// -2^127.
struct integer_type {
  int width;
  bool is_signed;
};
answer to_integer(format from, uint128 value, integer_type to, int mode = 0);

// From integers; raises nothing.
answer from_integer(format to, uint128 value, bool is_signed, rounding mode);

}  // namespace zorvac::test::oracle
#endif
