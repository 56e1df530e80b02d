#ifndef ZORVAC_ARRAY_REDUCTIONS_H
#define ZORVAC_ARRAY_REDUCTIONS_H
// Reductions over arrays, element by element: the identity that a private array starts from, and
// the folds of a private array into the target, as a table of element types.
//
// The table has one row a type: a routine that fills an array, and one fold for each operator. Each
// operator is written once, and templates turn it into folds: one for any arrays, and one that
// fills registers with elements that lie side by side. The table has the same rows for both. A
// source that includes this has the latter for its instruction set.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

#include "zorvac/array.h"
#include "zorvac/mem.h"
#include "zorvac/quad.h"

namespace zorvac::array {

using std::int64_t;
using std::uint32_t;
using std::uint64_t;
using byte = unsigned char;

// Writes the identity of an operator.
using filler = void (*)(byte* target, uint64_t count, uint32_t op);
// Combines element i of the target with element i * stride of the partial array, in order.
using fold = void (*)(byte* target, const byte* partial, uint64_t count, int64_t stride);
// The same with a stride of 1, and in any order where it makes no difference. For arrays that are
// too short, or that overlap, it uses `in_order`, which is the fold of the same type and operator.
using register_fold = void (*)(byte* target, const byte* partial, uint64_t count, fold in_order);

struct element_type {
  filler fill;
  const fold* folds;
  uint32_t last_operator;  // 0: no such type

  // No code is below the first one, 1.
  [[nodiscard]] bool accepts(uint32_t op) const { return op - 1 < last_operator; }
};
// By type code.
inline constexpr uint32_t type_codes = 24;
struct element_types {
  element_type with_code[type_codes];
};
struct register_folds {
  const register_fold* with_code[type_codes];
};

#pragma GCC visibility push(hidden)
extern const register_folds types_by_avx2_registers;
#pragma GCC visibility pop

namespace {

enum operator_code : uint32_t {
  op_none,
  op_sum,
  op_product,
  op_difference,
  op_maximum,
  op_minimum,
  op_logical_and,
  op_logical_or,
  op_bitwise_and,
  op_bitwise_or,
  op_bitwise_exclusive_or,
  op_exclusive_or,
  op_equivalence,
  op_non_equivalence,
};
constexpr uint32_t type_of_unsigned_bytes = 1;

struct quad {
  uint64_t low, high;
};
template <class T>
struct complex {
  T real, imaginary;
};

// An array need not be aligned to the size of its elements. With the loads and stores of
// core/unaligned.h, g++ does not vectorise the loops of complex elements.
template <class T>
struct [[gnu::packed, gnu::may_alias]] unaligned {
  T value;
};
template <class T>
[[gnu::always_inline]] inline T load(const byte* from) {
  return reinterpret_cast<const unaligned<T>*>(from)->value;
}
template <class T>
[[gnu::always_inline]] inline void store(byte* to, T value) {
  reinterpret_cast<unaligned<T>*>(to)->value = value;
}

// ---- Identities ---------------------------------------------------------------------------------

template <class T>
struct constants {
  static constexpr T zero = 0, one = 1;
  static constexpr T least = std::numeric_limits<T>::lowest();  // finite
  static constexpr T greatest = std::numeric_limits<T>::max();
};
template <>
struct constants<quad> {
  static constexpr quad zero = {0, 0}, one = {0, 0x3fff000000000000};
  static constexpr quad least = {~uint64_t{0}, 0xfffeffffffffffff};
  static constexpr quad greatest = {~uint64_t{0}, 0x7ffeffffffffffff};
};
template <class T>
struct constants<complex<T>> {
  static constexpr complex<T> zero = {constants<T>::zero, constants<T>::zero};
  static constexpr complex<T> one = {constants<T>::one, constants<T>::zero};
  static constexpr complex<T> least = zero, greatest = zero;  // never used: no order
};

template <class T>
T identity(uint32_t op) {
  switch (op) {
    case op_product:
    case op_logical_and:
    case op_equivalence:
      return constants<T>::one;
    case op_maximum:
      return constants<T>::least;
    case op_minimum:
      return constants<T>::greatest;
    case op_bitwise_and:
      if constexpr (std::is_integral_v<T>) return static_cast<T>(~constants<T>::zero);
      [[fallthrough]];
    default:
      return constants<T>::zero;
  }
}

template <class T>
void fill(byte* target, uint64_t count, uint32_t op) {
  const T value = identity<T>(op);
  for (uint64_t i = 0; i < count; ++i) store(target + i * sizeof(T), value);
}

// Operator 0 is accepted for one type and fills with the low byte of the count. Compiled programs
// rely on this, and on the two unusual complex products below.
template <class T>
void fill_bytes(byte* target, uint64_t count, uint32_t op) {
  const auto value = op == op_none ? static_cast<T>(count) : identity<T>(op);
  _zorva_fast_memset(target, value, count);
}

// ---- Operators, of a target element t and a partial element p -----------------------------------

// Small integers are multiplied as unsigned, so that no product of two of them overflows.
template <class T>
constexpr auto promoted(T value) {
  if constexpr (std::is_integral_v<T> && sizeof(T) < sizeof(unsigned)) {
    return static_cast<unsigned>(value);
  } else {
    return value;
  }
}

constexpr auto sum = [](auto t, auto p) { return t + p; };
constexpr auto product = [](auto t, auto p) { return promoted(t) * promoted(p); };
constexpr auto difference = [](auto t, auto p) { return t - p; };
// Like MAXPS and MINPS with t as the first operand: p where either is a NaN or both are zeros.
constexpr auto maximum = [](auto t, auto p) { return t > p ? t : p; };
constexpr auto minimum = [](auto t, auto p) { return t < p ? t : p; };
constexpr auto bitwise_and = [](auto t, auto p) { return t & p; };
constexpr auto bitwise_or = [](auto t, auto p) { return t | p; };
constexpr auto exclusive_or = [](auto t, auto p) { return t ^ p; };
constexpr auto equivalence = [](auto t, auto p) { return t == p; };
constexpr auto non_equivalence = [](auto t, auto p) { return t != p; };

constexpr auto complex_product = [](auto t, auto p) {
  return decltype(t){t.real * p.real - t.imaginary * p.imaginary,
                     t.real * p.imaginary + t.imaginary * p.real};
};
// The product of complex binary64. It does not use the target.
constexpr auto square_of_partial = [](auto, auto p) {
  const auto cross = p.real * p.imaginary;
  return decltype(p){p.real * p.real - p.imaginary * p.imaginary, cross + cross};
};

// ---- Folds --------------------------------------------------------------------------------------

// Combines the element at `target` with the one at `partial`.
using combination = void (*)(byte* target, const byte* partial);

template <class T, auto Operator>
[[gnu::always_inline]] inline void by_value(byte* target, const byte* partial) {
  store(target, static_cast<T>(Operator(load<T>(target), load<T>(partial))));
}
template <auto Routine>
[[gnu::always_inline]] inline void by_quad_routine(byte* target, const byte* partial) {
  Routine(target, target, partial);
}
template <auto Relation>
[[gnu::always_inline]] inline void by_quad_relation(byte* target, const byte* partial) {
  if (Relation(target, partial) != 0) store(target, load<quad>(partial));
}
// The first factor is the real part of the target with the imaginary part of the partial.
[[gnu::always_inline]] inline void complex_quad_product(byte* target, const byte* partial) {
  const byte* const imaginary = partial + sizeof(quad);
  __cmulq(target, target, imaginary, partial, imaginary);
}

template <class T, combination Combine>
void fold_one_by_one(byte* target, const byte* partial, uint64_t count, int64_t stride) {
  constexpr auto bytes = static_cast<int64_t>(sizeof(T));
  if (stride == 1) {
    for (uint64_t i = 0; i < count; ++i) Combine(target + i * sizeof(T), partial + i * sizeof(T));
    return;
  }
  for (; count != 0; --count, target += bytes, partial += stride * bytes) Combine(target, partial);
}
// Sums and differences of complex arrays are folded by parts; the stride counts parts, too.
template <class T, combination Combine, unsigned Parts>
void fold_parts(byte* target, const byte* partial, uint64_t count, int64_t stride) {
  fold_one_by_one<T, Combine>(target, partial, Parts * count, stride);
}
// Products of complex arrays ignore the stride: element i of one meets element i of the other.
template <class T, combination Combine>
void fold_without_stride(byte* target, const byte* partial, uint64_t count, int64_t) {
  fold_one_by_one<T, Combine>(target, partial, count, 1);
}

// Combines elements that lie side by side and fill a register. The compiler turns the loop into
// instructions for the register. `result` may be `target`.
template <class T, auto Operator, std::size_t Bytes>
[[gnu::always_inline]] inline void combine_register(byte* result, const byte* target,
                                                    const byte* __restrict partial) {
  for (std::size_t at = 0; at < Bytes; at += sizeof(T))
    store(result + at, static_cast<T>(Operator(load<T>(target + at), load<T>(partial + at))));
}

// The last register may overlap the one before it: it is computed before any element is stored, and
// stored last. So no elements are left over.
template <class T, auto Operator, std::size_t Bytes>
[[gnu::always_inline]] inline void combine_registers(byte* target, const byte* partial,
                                                     uint64_t bytes) {
  using whole [[gnu::vector_size(Bytes)]] = byte;
  const uint64_t last = bytes - Bytes;
  byte result[Bytes];
  combine_register<T, Operator, Bytes>(result, target + last, partial + last);
  const auto at_end = load<whole>(result);
  for (uint64_t i = 0; i < last; i += Bytes)
    combine_register<T, Operator, Bytes>(target + i, target + i, partial + i);
  store(target + last, at_end);
}

#ifdef __AVX2__
constexpr std::size_t widest = 32;  // bytes of a register
constexpr bool compares_large_elements = true;
#else
constexpr std::size_t widest = 16;
constexpr bool compares_large_elements = false;
#endif
constexpr std::size_t narrowest = 16;

// Whether elements of one array lie among those of the other. Every array overlaps itself.
[[gnu::always_inline]] inline bool overlap(const byte* target, const byte* partial,
                                           uint64_t bytes) {
  const auto distance =
      reinterpret_cast<std::uintptr_t>(target) - reinterpret_cast<std::uintptr_t>(partial);
  return distance < bytes || -distance < bytes;
}

template <class T, auto Operator, unsigned Parts>
void fold_by_registers(byte* target, const byte* partial, uint64_t count, fold in_order) {
  const uint64_t bytes = count * Parts * sizeof(T);
  if (bytes < narrowest || overlap(target, partial, bytes)) [[unlikely]]
    return in_order(target, partial, count, 1);
  if (bytes < widest) return combine_registers<T, Operator, narrowest>(target, partial, bytes);
  combine_registers<T, Operator, widest>(target, partial, bytes);
}
// For what no instruction does with whole registers. The level still has other instructions.
template <fold Fold>
void fold_side_by_side(byte* target, const byte* partial, uint64_t count, fold) {
  Fold(target, partial, count, 1);
}

// For quads: the level has nothing to add to the routines that compute with them.
inline void fold_in_order(byte* target, const byte* partial, uint64_t count, fold in_order) {
  in_order(target, partial, count, 1);
}

// Operators of 64-bit elements for which the level has no instruction.
template <auto Operator, auto... Others>
constexpr bool is_one_of = (std::is_same_v<decltype(Operator), decltype(Others)> || ...);
template <class T, auto Operator>
constexpr bool lacks_instruction =
    sizeof(T) == 8 && ((std::is_integral_v<T> && is_one_of<Operator, product>) ||
                       (!compares_large_elements &&
                        is_one_of<Operator, maximum, minimum, equivalence, non_equivalence>));

// The two ways to fold. Each makes folds of an operator of parts, of whole elements, and of quads,
// and a row of the table of types.
struct for_any_arrays {
  using fold = array::fold;
  using table = element_types;
  template <class T, auto Operator, unsigned Parts = 1>
  static constexpr fold by_parts = fold_parts<T, by_value<T, Operator>, Parts>;
  template <fold Fold>
  static constexpr fold by_elements = Fold;
  template <fold Fold>
  static constexpr fold of_quads = Fold;
  static constexpr element_type row(filler fill, const fold* folds, uint32_t last) {
    return {fill, folds, last};
  }
};
struct by_registers {
  using fold = register_fold;
  using table = register_folds;
  template <class T, auto Operator, unsigned Parts = 1>
  static constexpr fold by_parts =
      lacks_instruction<T, Operator>
          ? fold_side_by_side<fold_parts<T, by_value<T, Operator>, Parts>>
          : fold_by_registers<T, Operator, Parts>;
  template <array::fold Fold>
  static constexpr fold by_elements = fold_side_by_side<Fold>;
  template <array::fold>
  static constexpr fold of_quads = fold_in_order;
  static constexpr const fold* row(filler, const fold* folds, uint32_t) { return folds; }
};

// ---- The table of types -------------------------------------------------------------------------

// Folds by operator code. Integers wrap: only maximum and minimum regard the sign.
template <class Way, class T, class U = std::make_unsigned_t<T>>
constexpr typename Way::fold integer_folds[] = {
    nullptr,
    Way::template by_parts<U, sum>,
    Way::template by_parts<U, product>,
    Way::template by_parts<U, difference>,
    Way::template by_parts<T, maximum>,
    Way::template by_parts<T, minimum>,
    Way::template by_parts<U, bitwise_and>,
    Way::template by_parts<U, bitwise_or>,
    Way::template by_parts<U, bitwise_and>,
    Way::template by_parts<U, bitwise_or>,
    Way::template by_parts<U, exclusive_or>,
    Way::template by_parts<U, exclusive_or>,
    Way::template by_parts<U, equivalence>,
    Way::template by_parts<U, non_equivalence>,
};
template <class Way, class T>
constexpr typename Way::fold float_folds[] = {
    nullptr,
    Way::template by_parts<T, sum>,
    Way::template by_parts<T, product>,
    Way::template by_parts<T, difference>,
    Way::template by_parts<T, maximum>,
    Way::template by_parts<T, minimum>,
};
template <class Way, class T, auto Product>
constexpr typename Way::fold complex_folds[] = {
    nullptr,
    Way::template by_parts<T, sum, 2>,
    Way::template by_elements<fold_without_stride<complex<T>, by_value<complex<T>, Product>>>,
    Way::template by_parts<T, difference, 2>,
};
template <class Way>
constexpr typename Way::fold quad_folds[] = {
    nullptr,
    Way::template of_quads<fold_one_by_one<quad, by_quad_routine<__addq>>>,
    Way::template of_quads<fold_one_by_one<quad, by_quad_routine<__mulq>>>,
    Way::template of_quads<fold_one_by_one<quad, by_quad_routine<__subq>>>,
    Way::template of_quads<fold_one_by_one<quad, by_quad_relation<__leq>>>,
    Way::template of_quads<fold_one_by_one<quad, by_quad_relation<__geq>>>,
};
template <class Way>
constexpr typename Way::fold complex_quad_folds[] = {
    nullptr,
    Way::template of_quads<fold_parts<quad, by_quad_routine<__addq>, 2>>,
    Way::template of_quads<fold_without_stride<complex<quad>, complex_quad_product>>,
    Way::template of_quads<fold_parts<quad, by_quad_routine<__subq>, 2>>,
};

// A type that takes the operators up to `Last`. This compiles only if its table of folds has a row
// for each of them, so no call can use what lies behind the table.
template <class Way, operator_code Last, std::size_t Rows>
constexpr auto type_with(filler fill, const typename Way::fold (&folds)[Rows]) {
  static_assert(Rows == Last + 1, "one fold for each operator");
  return Way::row(fill, folds, Last);
}
template <class Way, class T>
constexpr auto byte_type = type_with<Way, op_non_equivalence>(fill_bytes<T>, integer_folds<Way, T>);
template <class Way, class T>
constexpr auto integer_type = type_with<Way, op_non_equivalence>(fill<T>, integer_folds<Way, T>);
template <class Way, class T>
constexpr auto float_type = type_with<Way, op_minimum>(fill<T>, float_folds<Way, T>);
template <class Way>
constexpr auto quad_type = type_with<Way, op_minimum>(fill<quad>, quad_folds<Way>);
template <class Way, class T, auto Product>
constexpr auto complex_type = type_with<Way, op_difference>(fill<complex<T>>,
                                                            complex_folds<Way, T, Product>);
template <class Way>
constexpr auto complex_quad_type = type_with<Way, op_difference>(fill<complex<quad>>,
                                                                 complex_quad_folds<Way>);

template <class Way>
constexpr typename Way::table types = {{
    {},
    byte_type<Way, std::uint8_t>,
    byte_type<Way, std::int8_t>,
    integer_type<Way, std::uint16_t>,
    integer_type<Way, std::int16_t>,
    integer_type<Way, uint32_t>,
    integer_type<Way, std::int32_t>,
    integer_type<Way, uint64_t>,
    integer_type<Way, int64_t>,
    float_type<Way, float>,
    float_type<Way, double>,
    {},
    {},
    quad_type<Way>,
    {},
    {},
    {},
    {},
    {},
    {},
    complex_type<Way, float, complex_product>,
    complex_type<Way, double, square_of_partial>,
    {},
    complex_quad_type<Way>,
}};

}  // namespace
}  // namespace zorvac::array
#endif
