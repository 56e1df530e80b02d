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

// To integers of `width` bits. The modes of the signed conversions are those of the routines'
// argument: 0 toward zero, 1 nearest even, 2 down, 3 up; anything else is away from zero for 32
// bits and toward zero for 64.
answer to_signed(bits value, int width, int mode);
answer to_unsigned(bits value, int width);
answer to_128(format from, uint128 value, bool is_signed);

// From integers; raises nothing.
answer from_integer(format to, uint128 value, bool is_signed, rounding mode);

// Decimal text of a number, to nearest; and printf's %g of a finite number.
answer from_text(const std::string& text);
std::string to_text(bits value, int digits);

}  // namespace zorvac::test::oracle
#endif
