// A program whose static objects use instructions that not every processor has. So the start-up
// check runs before their constructors. If it refuses to run the program, it names what is missing.
#include <zorvac/cpu.h>
#include <zorvac/startup.h>

#include <array>
#include <cmath>
#include <cstdio>

namespace {

struct startup_check {
  startup_check() {
    __zorva_new_feature_proc_init(ZORVAC_FLUSH_TO_ZERO, ZORVAC_FEATURE_SSE3 | ZORVAC_FEATURE_SSSE3);
  }
};
[[gnu::init_priority(101)]] const startup_check check;  // the earliest that a program may use

// Compiled for SSSE3, as the rest of the program would be.
class sine_table {
 public:
  __attribute__((target("ssse3"))) sine_table() {
    for (std::size_t degree = 0; degree < values_.size(); ++degree)
      values_[degree] = std::sin(static_cast<double>(degree) * 3.14159265358979324 / 180);
  }
  double operator[](std::size_t degree) const { return values_[degree]; }

 private:
  std::array<double, 91> values_;
};
const sine_table sines;

}  // namespace

int main() {
  std::printf("started: the sine of 30 degrees is %.3f\n", sines[30]);
  return 0;
}
