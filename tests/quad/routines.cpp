// The tables of routines and models.
#include "routines.h"

#include "zorvac/quad.h"

extern "C" {
void mulq_l(void*, const void*, const void*) __asm__("__mulq.L");
void mulq_a(void*, const void*, const void*) __asm__("__mulq.A");
void divq_l(void*, const void*, const void*) __asm__("__divq.L");
void divq_a(void*, const void*, const void*) __asm__("__divq.A");
}

namespace zorvac::test {

using oracle::format, oracle::binary32, oracle::binary64, oracle::x87, oracle::binary128;

const std::vector<arithmetic_row> arithmetic = {
    {"add", oracle::operation::add, {__addq, a_addq}},
    {"subtract", oracle::operation::subtract, {__subq, a_subq}},
    {"multiply", oracle::operation::multiply, {__mulq, a_mulq, mulq_l, mulq_a}},
    {"divide", oracle::operation::divide, {__divq, a_divq, divq_l, divq_a}},
};

const std::vector<comparison_row> comparisons = {
    {"eqq", {__eqq, a_eqq}, 0, 1, 0, 0, true},
    {"neq", {__neq, a_neq}, 1, 0, 1, 1, true},
    {"ltq", {__ltq, a_ltq}, 1, 0, 0, 0, false},
    {"leq", {__leq, a_leq}, 1, 1, 0, 0, false},
    {"gtq", {__gtq, a_gtq}, 0, 0, 1, 0, false},
    {"geq", {__geq, a_geq}, 0, 1, 1, 0, false},
    {"compareq", {__compareq, compareq}, -1, 0, 1, 0, false},
};
answer modelled(const comparison_row& row, oracle::order o) {
  const int results[] = {row.less, row.equal, row.greater, row.unordered};
  const bool invalid_raised = o == oracle::order::unordered && !row.quiet;
  return {image(results[static_cast<int>(o)]), invalid_raised ? invalid : 0};
}

namespace {

// ---- Routines by their shape: an operand by value or by address, a result returned or stored ----

template <class T>
T operand_of(const uint128 (&memory)[2]) {
  if constexpr (std::is_pointer_v<T>)
    return memory;
  else
    return value_of<T>(memory[0]);
}
template <class T>
answer call(void (*routine)(void*, T), const under_rounding& scope, uint128 w) {
  const uint128 memory[2] = {w, word_of(second_part)};
  return stored(scope, [&](void* result) { routine(result, operand_of<T>(memory)); });
}
template <class Result, class T, class... Argument>
answer call(Result (*routine)(T, Argument...), const under_rounding& scope, uint128 w,
            Argument... argument) {
  const uint128 memory[2] = {w, word_of(second_part)};
  return returned(scope, [&] { return routine(operand_of<T>(memory), argument...); });
}
// A routine, with its rounding argument where it has one.
template <auto Routine, int... Argument>
answer ours(const under_rounding& scope, uint128 w) {
  return call(Routine, scope, w, Argument...);
}
// One whose flags are the x87's. It may raise none in MXCSR: that would show above the x87's.
template <auto Routine>
answer ours_by_x87(const under_rounding& scope, uint128 w) {
  asm volatile("fnclex");
  answer a = ours<Routine>(scope, w);
  a.flags = a.flags << 6 | (read_x87().status & all_flags);
  asm volatile("fnclex");
  return a;
}

// ---- Models ----

// What two entries leave alone of a complex quad's imaginary part; they clear the rest, and the
// lowest four bytes of the real part.
constexpr uint128 only_bytes_16_to_19 = 0x5555'5555;
constexpr uint128 without_lowest_4_bytes = ~uint128{0xffff'ffff};

template <format From, int Width, bool Signed, int Mode = 0>
answer to_integer(uint128 w, rounding) {
  return oracle::to_integer(From, w, {Width, Signed}, Mode);
}
template <format To>
answer narrowed(uint128 w, rounding mode) {
  return oracle::narrow(To, bits_of(w), mode);
}
template <format To, int Bytes>
answer both_narrowed(uint128 w, rounding mode) {
  const answer first = narrowed<To>(w, mode), second = oracle::narrow(To, second_part, mode);
  uint128 value = filler;
  std::memcpy(&value, &first.value, Bytes);
  std::memcpy(reinterpret_cast<unsigned char*>(&value) + Bytes, &second.value, Bytes);
  return {value, first.flags | second.flags};
}
template <format From, uint128 Beyond = filler>
answer widened(uint128 w, rounding) {
  return {oracle::widen(From, w).value, 0, Beyond};
}
template <format From, int Width>
answer both_widened(uint128 w, rounding) {
  return {oracle::widen(From, w).value, 0, oracle::widen(From, w >> Width).value};
}
// The x87 unit sees the operand: it quiets a signalling NaN and raises its own flags.
answer widened_by_x87(uint128 w, rounding) {
  const bits q = bits_of(oracle::widen(x87, w).value);
  const uint128 magnitude = word_of(q) << 1 >> 1;
  if (magnitude > word_of(infinity) && (q.high & quiet_bit) == 0)
    return {word_of(q) | uint128{quiet_bit} << 64, invalid};
  const bool subnormal = magnitude != 0 && magnitude >> 112 == 0;
  return {word_of(q), subnormal ? denormal : 0};
}
template <format To, int Width, bool Signed, uint128 Beyond = filler, uint128 Kept = ~uint128{0}>
answer counted(uint128 n, rounding mode) {
  n <<= 128 - Width;
  n = Signed ? static_cast<uint128>(static_cast<int128>(n) >> (128 - Width)) : n >> (128 - Width);
  return {oracle::from_integer(To, n, Signed, mode).value & Kept, 0, Beyond};
}

}  // namespace

// Unknown rounding arguments: away from zero for 32 bits, toward zero for 64.
const std::vector<conversion_row> of_quads = {
    {"negq",
     {ours<__negq>, ours<a_negq>},
     [](uint128 w, rounding) -> answer {
       return {w ^ uint128{1} << 127, 0};
     }},
    {"qtoi toward zero",
     {ours<__qtoi, 0>, ours<a_qtoi, 0>, ours<a_qtoc, 0>, ours<a_qtos, 0>, ours<a_cqtoi>,
      ours<a_cqtoch>, ours<a_cqtos>},
     to_integer<binary128, 32, true>},
    {"qtoi to nearest",
     {ours<__qtoi, 1>, ours<a_qtoi, 1>, ours<a_qtoc, 1>, ours<a_qtos, 1>},
     to_integer<binary128, 32, true, 1>},
    {"qtoi down", {ours<__qtoi, 2>}, to_integer<binary128, 32, true, 2>},
    {"qtoi up", {ours<__qtoi, 3>}, to_integer<binary128, 32, true, 3>},
    {"qtoi", {ours<__qtoi, 4>, ours<__qtoi, -1>}, to_integer<binary128, 32, true, 4>},
    {"qtoj toward zero",
     {ours<__qtoj, 0>, ours<a_qtoj, 0>, ours<a_cqtoj>},
     to_integer<binary128, 64, true>},
    {"qtoj to nearest", {ours<__qtoj, 1>, ours<a_qtoj, 1>}, to_integer<binary128, 64, true, 1>},
    {"qtoj down", {ours<__qtoj, 2>}, to_integer<binary128, 64, true, 2>},
    {"qtoj up", {ours<__qtoj, 3>}, to_integer<binary128, 64, true, 3>},
    {"qtoj", {ours<__qtoj, 4>, ours<__qtoj, -1>}, to_integer<binary128, 64, true, 4>},
    {"qtou", {ours<__qtou>}, to_integer<binary128, 32, false>},
    {"qtok", {ours<__qtok>}, to_integer<binary128, 64, false>},
    {"qton", {ours<__qton>}, to_integer<binary128, 128, false>},
    {"qtom", {ours<__qtom>}, to_integer<binary128, 128, true>},
    {"qtof", {ours<__qtof>, ours<a_qtof>, ours<a_cqtof>}, narrowed<binary32>},
    {"qtod", {ours<__qtod>, ours<a_qtod>, ours<a_cqtod>}, narrowed<binary64>},
    {"qtol", {ours<__qtol>, ours<a_qtol>}, narrowed<x87>},
    {"cqtoc", {ours<a_cqtoc>}, both_narrowed<binary32, 4>},
    {"cqtocd", {ours<a_cqtocd>}, both_narrowed<binary64, 8>},
    {"cqtoq",
     {ours<a_cqtoq>},
     [](uint128 w, rounding) -> answer {
       return {w, 0};
     }},
    {"qtocq",
     {ours<a_qtocq>},
     [](uint128 w, rounding) -> answer {
       return {w & without_lowest_4_bytes, 0, only_bytes_16_to_19};
     }},
};
const std::vector<conversion_row> of_singles = {
    {"ftoq", {ours<__ftoq>, ours<a_ftoq>}, widened<binary32>},
    {"ftocq", {ours<a_ftocq>}, widened<binary32, 0>},
    {"ctocq", {ours<a_ctocq>}, both_widened<binary32, 32>},
    {"fton", {ours<__fton>}, to_integer<binary32, 128, false>},
    {"ftom", {ours<__ftom>}, to_integer<binary32, 128, true>},
};
const std::vector<conversion_row> of_doubles = {
    {"dtoq", {ours<__dtoq>, ours<a_dtoq>}, widened<binary64>},
    {"dtocq", {ours<a_dtocq>}, widened<binary64, 0>},
    {"cdtocq", {ours<a_cdtocq>}, both_widened<binary64, 64>},
    {"dton", {ours<__dton>}, to_integer<binary64, 128, false>},
    {"dtom", {ours<__dtom>}, to_integer<binary64, 128, true>},
};
const std::vector<conversion_row> of_extended = {
    {"ltoq", {ours_by_x87<__ltoq>, ours_by_x87<a_ltoq>}, widened_by_x87},
    {"lton", {ours<__lton>}, to_integer<x87, 128, false>},
    {"ltom", {ours<__ltom>}, to_integer<x87, 128, true>},
};
// What a caller's register holds beyond a narrow argument is not part of it.
const std::vector<conversion_row> of_integers = {
    {"ctoq", {ours<a_ctoq>}, counted<binary128, 8, true>},
    {"stoq", {ours<a_stoq>}, counted<binary128, 16, true>},
    {"itoq", {ours<__itoq>, ours<a_itoq>}, counted<binary128, 32, true>},
    {"utoq", {ours<__utoq>}, counted<binary128, 32, false>},
    {"jtoq", {ours<__jtoq>, ours<a_jtoq>}, counted<binary128, 64, true>},
    {"ktoq", {ours<__ktoq>}, counted<binary128, 64, false>},
    {"chtocq", {ours<a_chtocq>}, counted<binary128, 8, true, 0>},
    {"stocq",
     {ours<a_stocq>},
     counted<binary128, 16, true, only_bytes_16_to_19, without_lowest_4_bytes>},
    {"itocq", {ours<a_itocq>}, counted<binary128, 32, true, 0>},
    {"jtocq", {ours<a_jtocq>}, counted<binary128, 64, true, 0>},
    {"ntof", {ours<__ntof>}, counted<binary32, 128, false>},
    {"mtof", {ours<__mtof>}, counted<binary32, 128, true>},
    {"ntod", {ours<__ntod>}, counted<binary64, 128, false>},
    {"mtod", {ours<__mtod>}, counted<binary64, 128, true>},
    {"ntol", {ours<__ntol>}, counted<x87, 128, false>},
    {"mtol", {ours<__mtol>}, counted<x87, 128, true>},
    {"ntoq", {ours<__ntoq>}, counted<binary128, 128, false>},
    {"mtoq", {ours<__mtoq>}, counted<binary128, 128, true>},
};

}  // namespace zorvac::test
