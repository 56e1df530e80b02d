// Child processes with both output streams caught.
#include "support/child.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
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

}  // namespace

std::ostream& operator<<(std::ostream& out, const outcome& o) {
  return out << "exit status " << o.exit_status << ", signal " << o.signal
             << "\nstandard output: " << o.standard_output
             << "\nstandard error: " << o.standard_error;
}

outcome run_in_child(const std::function<void()>& body) {
  std::array<int, 2> out{}, err{};
  if (pipe(out.data()) != 0 || pipe(err.data()) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);  // or the child would print what the parent has buffered
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    for (const int fd : {out[0], out[1], err[0], err[1]}) close(fd);
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
  close(out[1]);
  close(err[1]);

  outcome result;
  std::array<pollfd, 2> streams{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
  std::array<std::string*, 2> texts{&result.standard_output, &result.standard_error};
  for (int open = 2; open > 0;) {
    poll(streams.data(), streams.size(), -1);
    for (std::size_t i = 0; i < streams.size(); ++i) {
      if (streams[i].fd < 0 || streams[i].revents == 0) continue;
      std::array<char, 4096> chunk{};
      const ssize_t bytes = read(streams[i].fd, chunk.data(), chunk.size());
      if (bytes > 0) {
        texts[i]->append(chunk.data(), static_cast<std::size_t>(bytes));
      } else {
        close(streams[i].fd);
        streams[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
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
