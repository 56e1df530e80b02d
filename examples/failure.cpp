// An exception that stores where it was thrown: its constructor takes the traceback, before the
// stack is unwound, and the code that catches the exception can print it.
#include <zorvac/diag.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

class failure : public std::runtime_error {
 public:
  explicit failure(const std::string& what) : std::runtime_error(what) {
    constexpr std::uint32_t one_line_each = 1, without_the_library = 1;
    tbk_string_stack_signal(nullptr, where_.data(), where_.size(), one_line_each,
                            without_the_library);
  }
  [[nodiscard]] const char* where() const { return where_.data(); }

 private:
  std::array<char, 4096> where_;
};

}  // namespace

// Not inlined, so that each has a frame. The traceback shows the linker's names.
[[gnu::noinline]] static double reciprocal(double x) {
  if (x == 0) throw failure("a reciprocal of 0 is asked for");
  return 1 / x;
}
[[gnu::noinline]] static double harmonic_mean(double a, double b) {
  return 2 / (reciprocal(a) + reciprocal(b));
}

int main() {
  try {
    std::printf("%g\n", harmonic_mean(3, 6));
    std::printf("%g\n", harmonic_mean(3, 0));
  } catch (const failure& f) {
    std::printf("%s\n%s", f.what(), f.where());
  }
  return 0;
}
