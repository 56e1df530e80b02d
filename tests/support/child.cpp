// Child processes with both output streams caught.
#include "support/child.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

#ifdef ZORVAC_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace zorvac::test {
namespace {

// The counts of a coverage build are written by exit; a child that ends otherwise writes them here.
void keep_coverage() {
#ifdef ZORVAC_COVERAGE
  __gcov_dump();
#endif
}

// All that was written to a file that nobody else has, which is closed.
std::string text_in(int file) {
  std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), 0);
  const bool whole = pread(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
  close(file);
  if (!whole) throw std::runtime_error("read failed");
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const outcome& o) {
  return out << "exit status " << o.exit_status << ", signal " << o.signal
             << "\nstandard output: " << o.standard_output
             << "\nstandard error: " << o.standard_error;
}

outcome run_in_child(const std::function<void()>& body) {
  const int streams[] = {memfd_create("output", 0), memfd_create("error", 0)};
  std::fflush(nullptr);  // or the child would print what the parent has buffered
  const pid_t child = fork();
  if (child < 0 || streams[0] < 0 || streams[1] < 0) throw std::runtime_error("no child process");
  if (child == 0) {
    dup2(streams[0], STDOUT_FILENO);
    dup2(streams[1], STDERR_FILENO);
    for (const int fd : streams) close(fd);
#ifdef ZORVAC_COVERAGE
    struct sigaction once {};  // then the signal does what it does by default
    once.sa_handler = [](int) { keep_coverage(); };
    once.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int deadly : {SIGABRT, SIGSEGV}) sigaction(deadly, &once, nullptr);
#endif
    body();
    std::fflush(nullptr);
    keep_coverage();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  outcome result{text_in(streams[0]), text_in(streams[1])};
  if (WIFEXITED(status)) result.exit_status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
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
