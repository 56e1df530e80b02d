#ifndef ZORVAC_TOOLS_FAILURE_H
#define ZORVAC_TOOLS_FAILURE_H
// What ends the program, as its user is told it: "no debug information".
#include <stdexcept>

namespace zorvac::mktrace {

struct failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace zorvac::mktrace
#endif
