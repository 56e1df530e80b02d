#ifndef ZORVAC_TOOLS_FAILURE_H
#define ZORVAC_TOOLS_FAILURE_H
// An error that ends the program. Its text is the message to the user, for example "no debug
// information".
#include <stdexcept>

namespace zorvac::mktrace {

struct failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace zorvac::mktrace
#endif
