// Which body multiplication and division take, in a program that defines all of them itself
// (stand_ins.S), as any program may.
#include "support/dispatch.h"

#include "zorvac/quad.h"

namespace zorvac::test {

TEST(QuadDispatch, TakesTheBodyOfTheIndicator) {
  expect_selections(reinterpret_cast<void*>(__mulq), {{0xff, "__mulq.L"}, {1, "__mulq.A"}});
  expect_selections(reinterpret_cast<void*>(__divq), {{0xff, "__divq.L"}, {1, "__divq.A"}});
}

}  // namespace zorvac::test
