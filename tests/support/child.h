#ifndef ZORVAC_TESTS_SUPPORT_CHILD_H
#define ZORVAC_TESTS_SUPPORT_CHILD_H
// Runs code in a child process and returns all that a shell would see of it. For code that ends the
// process, and for state that can be set up only once.
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace zorvac::test {

struct outcome {
  std::string standard_output;
  std::string standard_error;
  int exit_status = -1;  // -1: a signal ended the process
  int signal = 0;        // the signal that ended the process, or 0
  bool operator==(const outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const outcome& o);

// Runs `body` in a fork of this process. A body that returns ends the child with status 0, without
// exit handlers; its streams are flushed.
outcome run_in_child(const std::function<void()>& body);

// Runs a program, which is searched for in PATH.
outcome run_program(const std::vector<std::string>& command);

}  // namespace zorvac::test
#endif
