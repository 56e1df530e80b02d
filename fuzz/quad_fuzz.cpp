// Every quad operation and conversion against the MPFR model, on operands that a fuzzer finds by
// looking for new paths through the library: one byte of rounding mode, then two quads.
#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "routines.h"

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

void check_operations(const input& in, const under_rounding& scope) {
  for (const arithmetic_row& row : arithmetic) {
    const answer expected = oracle::arithmetic(row.computes, in.a, in.b, in.mode);
    for (const auto routine : row.routines)
      check(row.name, in, stored(scope, [&](void* q) { routine(q, &in.a, &in.b); }), expected);
  }
  const oracle::order order = oracle::compare(in.a, in.b);
  for (const comparison_row& row : comparisons) {
    for (const auto routine : row.routines)
      check(row.name, in, returned(scope, [&] { return routine(&in.a, &in.b); }),
            modelled(row, order));
  }
}

// The first quad's bytes, as a word of each type.
void check_conversions(const input& in, const under_rounding& scope) {
  const uint128 w = word_of(in.a);
  for (const auto* rows : {&of_quads, &of_singles, &of_doubles, &of_integers}) {
    for (const conversion_row& row : *rows) {
      const answer expected = row.model(w, in.mode);
      for (const auto routine : row.routines) check(row.name, in, routine(scope, w), expected);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 33) return 0;
  input in{static_cast<rounding>(data[0] & 3), {}, {}};
  std::memcpy(&in.a, data + 1, 16);
  std::memcpy(&in.b, data + 17, 16);
  const under_rounding scope(in.mode);
  check_operations(in, scope);
  check_conversions(in, scope);
  return 0;
}
