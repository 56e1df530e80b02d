// Runs child processes and captures both output streams.
#include "support/child.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

// Writes the counts of a coverage build, as exit does. Other builds do not have this routine.
extern "C" [[gnu::weak]] void __gcov_dump();

namespace zorvac::test {
namespace {

void keep_coverage(int deadly_signal = 0) {
  if (deadly_signal != 0) std::signal(deadly_signal, SIG_DFL);  // the signal is raised again
  if (__gcov_dump != nullptr) __gcov_dump();
}

// Returns everything that was written to a private file, and closes it.
std::string text_in(int file) {
  std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), 0);
  text.resize(static_cast<std::size_t>(pread(file, text.data(), text.size(), 0)));
  close(file);
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const outcome& o) {
  return out << "exit status " << o.exit_status << ", signal " << o.signal
             << "\nstandard output: " << o.standard_output
             << "\nstandard error: " << o.standard_error;
}

outcome run_in_child(const std::function<void()>& body) {
  const int streams[] = {memfd_create("output", MFD_CLOEXEC), memfd_create("error", MFD_CLOEXEC)};
  std::fflush(nullptr);  // otherwise the child would print what the parent has buffered
  const pid_t child = fork();
  if (child == 0) {
    dup2(streams[0], STDOUT_FILENO);
    dup2(streams[1], STDERR_FILENO);
    for (const int deadly : {SIGABRT, SIGSEGV})
      if (__gcov_dump != nullptr) std::signal(deadly, keep_coverage);
    body();
    std::fflush(nullptr);
    keep_coverage();
    _exit(0);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) throw std::runtime_error("no child process");
  return {text_in(streams[0]), text_in(streams[1]), WIFEXITED(status) ? WEXITSTATUS(status) : -1,
          WIFSIGNALED(status) ? WTERMSIG(status) : 0};
}

outcome run_program(const std::vector<std::string>& command) {
  return run_in_child([&] {
    std::vector<char*> arguments;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    std::perror(arguments[0]);
    _exit(127);
  });
}

}  // namespace zorvac::test
