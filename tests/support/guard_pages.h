#ifndef ZORVAC_TESTS_SUPPORT_GUARD_PAGES_H
#define ZORVAC_TESTS_SUPPORT_GUARD_PAGES_H
// A block of memory between two pages that must not be touched. On a side where the block ends at
// its page, a read or write one byte outside ends the test at once, and the test then names the
// case.
#include <sys/mman.h>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

namespace zorvac::test {

class guarded_block {
 public:
  // At least `bytes` usable bytes, rounded up to whole pages.
  explicit guarded_block(std::size_t bytes) : bytes_((bytes + page - 1) / page * page) {
    void* const map =
        mmap(nullptr, bytes_ + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    begin_ = static_cast<unsigned char*>(map) + page;
    if (map == MAP_FAILED || mprotect(begin_, bytes_, PROT_READ | PROT_WRITE) != 0)
      throw std::runtime_error("no memory between unreadable pages");
  }
  ~guarded_block() { munmap(begin_ - page, bytes_ + 2 * page); }
  guarded_block(const guarded_block&) = delete;
  guarded_block& operator=(const guarded_block&) = delete;

  [[nodiscard]] unsigned char* begin() const { return begin_; }
  [[nodiscard]] unsigned char* end() const { return begin_ + bytes_; }
  [[nodiscard]] std::size_t size() const { return bytes_; }

 private:
  static constexpr std::size_t page = 4096;
  std::size_t bytes_;
  unsigned char* begin_;
};

// While an object of this class exists, a fault prints the current case before it ends the process.
// (Printing in a handler is unsafe in general, but here the process ends anyway.)
class fault_report {
 public:
  explicit fault_report(const std::function<std::string()>& this_case) {
    this_case_ = this_case;
    std::signal(SIGSEGV, [](int signal) {
      std::fprintf(stderr, "fault in case: %s\n", this_case_().c_str());
      std::signal(signal, SIG_DFL);  // the signal is raised again
    });
  }
  ~fault_report() { std::signal(SIGSEGV, SIG_DFL); }

 private:
  static inline std::function<std::string()> this_case_;
};

}  // namespace zorvac::test
#endif
