// Comparison of quads in memory. Equality never raises a flag. The ordering predicates raise IE for
// any NaN and are false.
#include "quad/compare.h"
#include "quad/nan.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

struct relation {
  using rules = own_rules;
  static constexpr int unordered = 0;
};
struct less : relation {
  static int of(int sign) { return sign < 0; }
};
struct less_equal : relation {
  static int of(int sign) { return sign <= 0; }
};
struct greater : relation {
  static int of(int sign) { return sign > 0; }
};
struct greater_equal : relation {
  static int of(int sign) { return sign >= 0; }
};
struct three_way : relation {
  static int of(int sign) { return sign; }
};

}  // namespace

int __eqq(const void* a, const void* b) { return equal(load(a), load(b)); }
int __neq(const void* a, const void* b) { return !equal(load(a), load(b)); }

int __ltq(const void* a, const void* b) { return compare<less>(at_address{a}, at_address{b}); }
int __leq(const void* a, const void* b) {
  return compare<less_equal>(at_address{a}, at_address{b});
}
int __gtq(const void* a, const void* b) { return compare<greater>(at_address{a}, at_address{b}); }
int __geq(const void* a, const void* b) {
  return compare<greater_equal>(at_address{a}, at_address{b});
}
int __compareq(const void* a, const void* b) {
  return compare<three_way>(at_address{a}, at_address{b});
}
