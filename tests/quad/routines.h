#ifndef ZORVAC_TESTS_QUAD_ROUTINES_H
#define ZORVAC_TESTS_QUAD_ROUTINES_H
// Every routine of quad arithmetic under the model of what it computes: an operation is one row,
// with all the entries that lead to it.
#include <vector>

#include "oracle.h"

namespace zorvac::test {

struct arithmetic_row {
  const char* name;
  oracle::operation computes;
  std::vector<void (*)(void*, const void*, const void*)> routines;
};
extern const std::vector<arithmetic_row> arithmetic;

struct comparison_row {
  const char* name;
  std::vector<int (*)(const void*, const void*)> routines;
  int less, equal, greater, unordered;
  bool quiet;
};
extern const std::vector<comparison_row> comparisons;
answer modelled(const comparison_row& row, oracle::order o);

// Of one operand, whose image is the word's low bytes. The routines that read a quad from memory
// find this one behind it.
constexpr bits second_part = quad(true, 0x4005, 0x1234'5678'9abc, 77);
struct conversion_row {
  const char* name;
  std::vector<answer (*)(const under_rounding&, uint128)> routines;
  answer (*model)(uint128, rounding);
};
extern const std::vector<conversion_row> of_quads, of_singles, of_doubles, of_extended, of_integers;

}  // namespace zorvac::test
#endif
