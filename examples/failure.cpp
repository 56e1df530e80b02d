// An exception that remembers where it was thrown: it takes the traceback when it is made, while
// the stack still stands, and whoever catches it far up can print it.
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

// Not inlined, so that each has a frame to show; the names are those the linker knows.
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
