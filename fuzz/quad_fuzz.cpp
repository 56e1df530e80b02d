// Every quad operation and conversion against the MPFR model, on operands that a fuzzer finds by
// looking for new paths through the library: one byte of rounding mode, then two quads.
#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "oracle.h"
#include "zorvac/quad.h"

using namespace zorvac::test;

namespace {

struct input {
  rounding mode;
  bits a, b;
};

void check(const char* name, const input& in, const answer& got, const answer& expected) {
  if (got == expected) return;
  std::cerr << name << " of " << in.a << " and " << in.b << " in mode " << in.mode << "\n     got "
            << got << "\nexpected " << expected << '\n';
  std::abort();
}

void check_arithmetic(const input& in, const under_rounding& scope) {
  using oracle::operation;
  const auto three = [&](const char* name, auto routine, operation o) {
    check(name, in, stored(scope, [&](void* q) { routine(q, &in.a, &in.b); }),
          oracle::arithmetic(o, in.a, in.b, in.mode));
  };
  three("__addq", __addq, operation::add);
  three("__subq", __subq, operation::subtract);
  three("__mulq", __mulq, operation::multiply);
  three("__divq", __divq, operation::divide);

  using oracle::order;
  const order o = oracle::compare(in.a, in.b);
  const unsigned flags = o == order::unordered ? invalid : 0;
  const auto relation = [&](const char* name, auto routine, int holds, unsigned raised) {
    check(name, in, returned(scope, [&] { return routine(&in.a, &in.b); }), {image(holds), raised});
  };
  relation("__eqq", __eqq, o == order::equal, 0);
  relation("__neq", __neq, o != order::equal, 0);
  relation("__ltq", __ltq, o == order::less, flags);
  relation("__leq", __leq, o == order::less || o == order::equal, flags);
  relation("__gtq", __gtq, o == order::greater, flags);
  relation("__geq", __geq, o == order::greater || o == order::equal, flags);
  relation("__compareq", __compareq, (o == order::greater) - (o == order::less), flags);
}

void check_conversions_of_quads(const input& in, const under_rounding& scope) {
  const bits* const a = &in.a;
  const int argument = static_cast<int>(in.b.low % 6) - 1;
  const auto gives = [&](const char* name, const answer& expected, auto call) {
    check(name, in, returned(scope, call), expected);
  };
  gives("__qtof", oracle::narrow(oracle::binary32, *a, in.mode), [&] { return __qtof(a); });
  gives("__qtod", oracle::narrow(oracle::binary64, *a, in.mode), [&] { return __qtod(a); });
  gives("__qtol", oracle::narrow(oracle::x87, *a, in.mode), [&] { return __qtol(a); });
  gives("__qtoi", oracle::to_signed(*a, 32, argument), [&] { return __qtoi(a, argument); });
  gives("__qtoj", oracle::to_signed(*a, 64, argument), [&] { return __qtoj(a, argument); });
  gives("__qtou", oracle::to_unsigned(*a, 32), [&] { return __qtou(a); });
  gives("__qtok", oracle::to_unsigned(*a, 64), [&] { return __qtok(a); });
  gives("__qton", oracle::to_128(oracle::binary128, word_of(*a), false), [&] { return __qton(a); });
  gives("__qtom", oracle::to_128(oracle::binary128, word_of(*a), true), [&] { return __qtom(a); });
}

// The first quad's bytes, as a word of each other type.
void check_conversions_of_words(const input& in, const under_rounding& scope) {
  const uint128 w = word_of(in.a);
  const auto single = image(value_of<float>(w)), twice = image(value_of<double>(w));
  const auto f = value_of<float>(w);
  const auto d = value_of<double>(w);
  const auto m = static_cast<int128>(w);
  const auto gives = [&](const char* name, const answer& expected, auto call) {
    check(name, in, returned(scope, call), expected);
  };
  const auto stores = [&](const char* name, const answer& expected, auto call) {
    check(name, in, stored(scope, call), expected);
  };
  using namespace oracle;
  stores("__ftoq", widen(binary32, single), [&](void* q) { __ftoq(q, f); });
  stores("__dtoq", widen(binary64, twice), [&](void* q) { __dtoq(q, d); });
  gives("__fton", to_128(binary32, single, false), [&] { return __fton(f); });
  gives("__ftom", to_128(binary32, single, true), [&] { return __ftom(f); });
  gives("__dton", to_128(binary64, twice, false), [&] { return __dton(d); });
  gives("__dtom", to_128(binary64, twice, true), [&] { return __dtom(d); });
  gives("__ntof", from_integer(binary32, w, false, in.mode), [&] { return __ntof(w); });
  gives("__mtof", from_integer(binary32, w, true, in.mode), [&] { return __mtof(m); });
  gives("__ntod", from_integer(binary64, w, false, in.mode), [&] { return __ntod(w); });
  gives("__mtod", from_integer(binary64, w, true, in.mode), [&] { return __mtod(m); });
  gives("__ntol", from_integer(x87, w, false, in.mode), [&] { return __ntol(w); });
  gives("__mtol", from_integer(x87, w, true, in.mode), [&] { return __mtol(m); });
  stores("__ntoq", from_integer(binary128, w, false, in.mode), [&](void* q) { __ntoq(q, w); });
  stores("__mtoq", from_integer(binary128, w, true, in.mode), [&](void* q) { __mtoq(q, m); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 33) return 0;
  input in{static_cast<rounding>(data[0] & 3), {}, {}};
  std::memcpy(&in.a, data + 1, 16);
  std::memcpy(&in.b, data + 17, 16);
  const under_rounding scope(in.mode);
  check_arithmetic(in, scope);
  check_conversions_of_quads(in, scope);
  check_conversions_of_words(in, scope);
  return 0;
}
