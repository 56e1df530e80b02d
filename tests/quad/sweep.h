#ifndef ZORVAC_TESTS_QUAD_SWEEP_H
#define ZORVAC_TESTS_QUAD_SWEEP_H
// Compares millions of answers and reports the first few that differ. While it lives the x87
// control word is an unlikely one: nothing here may look at it, and everything must leave it alone.
#include <gtest/gtest.h>

#include <sstream>

#include "binary128.h"

namespace zorvac::test {

class sweep {
 public:
  // 24-bit precision, rounding up, all exceptions masked.
  static constexpr std::uint16_t unlikely_x87_control = 0x087f;

  explicit sweep(long at_least) : at_least_(at_least), x87_(unlikely_x87_control) {}
  ~sweep() {
    EXPECT_EQ(read_x87().control, unlikely_x87_control);
    EXPECT_GE(cases_, at_least_);
    EXPECT_EQ(different_, 0) << "of " << cases_;
  }
  sweep(const sweep&) = delete;
  sweep& operator=(const sweep&) = delete;

  // `what` are the operands, for the report.
  template <class... What>
  void expect(const answer& got, const answer& expected, const What&... what) {
    ++cases_;
    if (got == expected) return;
    if (++different_ > 5) return;
    std::ostringstream text;
    ((text << what << ' '), ...);
    ADD_FAILURE() << text.str() << "\n     got " << got << "\nexpected " << expected;
  }

 private:
  long cases_ = 0, different_ = 0, at_least_;
  under_x87 x87_;
};

}  // namespace zorvac::test
#endif
