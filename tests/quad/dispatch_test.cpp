// Which body multiplication and division take, and where alternate names lead, in a program that
// defines all of these itself (stand_ins.S), as any program may.
#include "support/dispatch.h"

#include <dlfcn.h>

namespace zorvac::test {
namespace {

void* routine(const std::string& name) { return dlsym(RTLD_DEFAULT, name.c_str()); }

TEST(QuadDispatch, GoesThroughWhatTheProgramDefines) {
  for (const std::string name : {"__mulq", "__divq"})
    expect_selections(routine(name), {{0xff, name + ".L"}, {0x01, name + ".A"}});
  for (const std::string name :
       {"addq", "subq", "negq", "eqq", "neq", "ltq", "leq", "gtq", "geq", "itoq", "jtoq", "ftoq",
        "dtoq", "qtoi", "qtoj", "qtof", "qtod", "qtol"})
    EXPECT_EQ(taken_from(routine("a_" + name)), "__" + name);
}

}  // namespace
}  // namespace zorvac::test
