// Reductions over arrays, element by element: writes the identity that a private array starts from,
// and folds a private array into the target.
//
// The table of element types has one row a type: a routine that fills an array, and one fold for
// each operator. Each operator is written once, and a loop template turns it into a fold. The
// compiler vectorises the loops over contiguous elements.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

#include "zorvac/array.h"
#include "zorvac/mem.h"
#include "zorvac/quad.h"

namespace {

using std::int64_t;
using std::uint32_t;
using std::uint64_t;
using byte = unsigned char;

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

using filler = void (*)(byte* target, uint64_t count, uint32_t op);

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
// Combines element i of the target with element i * stride of the partial array.
using fold = void (*)(byte* target, const byte* partial, int64_t stride, uint64_t count);

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
void fold_elements(byte* target, const byte* partial, int64_t stride, uint64_t count) {
  constexpr auto bytes = static_cast<int64_t>(sizeof(T));
  if (stride == 1) {
    for (uint64_t i = 0; i < count; ++i) Combine(target + i * sizeof(T), partial + i * sizeof(T));
    return;
  }
  for (; count != 0; --count, target += bytes, partial += stride * bytes) Combine(target, partial);
}
template <class T, auto Operator>
constexpr fold fold_values = fold_elements<T, by_value<T, Operator>>;

// Sums and differences of complex arrays are folded by parts; the stride counts parts, too.
template <fold Fold>
void fold_parts(byte* target, const byte* partial, int64_t stride, uint64_t count) {
  Fold(target, partial, stride, 2 * count);
}
// Products of complex arrays ignore the stride: element i of one meets element i of the other.
template <fold Fold>
void fold_side_by_side(byte* target, const byte* partial, int64_t, uint64_t count) {
  Fold(target, partial, 1, count);
}

// ---- The table of types -------------------------------------------------------------------------

// Folds by operator code. Integers wrap: only maximum and minimum regard the sign.
template <class T, class U = std::make_unsigned_t<T>>
constexpr fold integer_folds[] = {
    nullptr,
    fold_values<U, sum>,
    fold_values<U, product>,
    fold_values<U, difference>,
    fold_values<T, maximum>,
    fold_values<T, minimum>,
    fold_values<U, bitwise_and>,
    fold_values<U, bitwise_or>,
    fold_values<U, bitwise_and>,
    fold_values<U, bitwise_or>,
    fold_values<U, exclusive_or>,
    fold_values<U, exclusive_or>,
    fold_values<U, equivalence>,
    fold_values<U, non_equivalence>,
};
template <class T>
constexpr fold float_folds[] = {
    nullptr,
    fold_values<T, sum>,
    fold_values<T, product>,
    fold_values<T, difference>,
    fold_values<T, maximum>,
    fold_values<T, minimum>,
};
constexpr fold quad_folds[] = {
    nullptr,
    fold_elements<quad, by_quad_routine<__addq>>,
    fold_elements<quad, by_quad_routine<__mulq>>,
    fold_elements<quad, by_quad_routine<__subq>>,
    fold_elements<quad, by_quad_relation<__leq>>,
    fold_elements<quad, by_quad_relation<__geq>>,
};
template <const auto& PartFolds, fold Product>
constexpr fold complex_folds[] = {
    nullptr,
    fold_parts<PartFolds[op_sum]>,
    fold_side_by_side<Product>,
    fold_parts<PartFolds[op_difference]>,
};

struct element_type {
  filler fill;
  const fold* folds;
  uint32_t last_operator;  // 0: no such type

  [[nodiscard]] bool accepts(uint32_t op) const { return op != op_none && op <= last_operator; }
  [[nodiscard]] bool is_integer() const { return last_operator == op_non_equivalence; }
};

// A type that takes the operators up to `Last`. This compiles only if its table of folds has a row
// for each of them, so no call can use what lies behind the table.
template <operator_code Last, std::size_t Rows>
constexpr element_type type_with(filler fill, const fold (&folds)[Rows]) {
  static_assert(Rows == Last + 1, "one fold for each operator");
  return {fill, folds, Last};
}
template <class T>
constexpr element_type byte_type = type_with<op_non_equivalence>(fill_bytes<T>, integer_folds<T>);
template <class T>
constexpr element_type integer_type = type_with<op_non_equivalence>(fill<T>, integer_folds<T>);
template <class T>
constexpr element_type float_type = type_with<op_minimum>(fill<T>, float_folds<T>);
template <class T, const auto& PartFolds, fold Product>
constexpr element_type complex_type = type_with<op_difference>(fill<complex<T>>,
                                                               complex_folds<PartFolds, Product>);

constexpr element_type element_types[] = {
    {},
    byte_type<std::uint8_t>,
    byte_type<std::int8_t>,
    integer_type<std::uint16_t>,
    integer_type<std::int16_t>,
    integer_type<uint32_t>,
    integer_type<std::int32_t>,
    integer_type<uint64_t>,
    integer_type<int64_t>,
    float_type<float>,
    float_type<double>,
    {},
    {},
    type_with<op_minimum>(fill<quad>, quad_folds),
    {},
    {},
    {},
    {},
    {},
    {},
    complex_type<float, float_folds<float>, fold_values<complex<float>, complex_product>>,
    complex_type<double, float_folds<double>, fold_values<complex<double>, square_of_partial>>,
    {},
    complex_type<quad, quad_folds, fold_elements<complex<quad>, complex_quad_product>>,
};

// Compiled code passes constants, so a code that is not in the table is a fault of the compiler.
const element_type& supported_type(uint32_t code) {
  constexpr uint32_t types = sizeof element_types / sizeof *element_types;
  if (code >= types || element_types[code].last_operator == 0) std::abort();
  return element_types[code];
}

void reduction_final_strided(void* target, const void* partial, uint32_t op, uint32_t type_code,
                             int64_t stride, uint64_t count) {
  const element_type& type = supported_type(type_code);
  if (type.accepts(op)) {
    type.folds[op](static_cast<byte*>(target), static_cast<const byte*>(partial), stride, count);
  } else if (!type.is_integer()) {
    std::abort();
  }
}

}  // namespace

void __zorva_reduction_init_array(void* target, uint64_t count, uint32_t op, uint32_t type_code) {
  const element_type& type = supported_type(type_code);
  const bool let_through = op == op_none && type_code == type_of_unsigned_bytes;
  if (!type.accepts(op) && !let_through) std::abort();
  type.fill(static_cast<byte*>(target), count, op);
}

void __zorva_simd_reduction_final_array(void* target, const void* partial, uint64_t count,
                                        int32_t stride, int32_t strided, uint32_t op,
                                        uint32_t type_code) {
  reduction_final_strided(target, partial, op, type_code, strided != 0 ? stride : 1, count);
}
