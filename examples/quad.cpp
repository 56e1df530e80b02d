// Three uses of 113 bits: pi to the last digit, a sum whose terms cancel so much that in doubles no
// digit is right, and an equation of which doubles lose a root. Each is computed in all four
// rounding modes: where the results agree, the digits can be trusted without knowing the true
// value. The flags that it raised are printed, too.
#include <cmath>
#include <cstdio>
#include <string>
#include <zorvac/quad.hpp>

using zorvac::quad;
using namespace zorvac::literals;

namespace {

// arctan(1/n) = 1/n - 1/(3 n^3) + 1/(5 n^5) - ...
template <class Number>
Number arctan_of_reciprocal(int n) {
  Number power = Number(1) / Number(n), sum = power;
  for (int k = 3; k < 120; k += 2) {
    power /= Number(-n * n);
    sum += power / Number(k);
  }
  return sum;
}

// Machin's formula of 1706.
template <class Number>
Number pi() {
  return Number(16) * arctan_of_reciprocal<Number>(5) -
         Number(4) * arctan_of_reciprocal<Number>(239);
}

// e^-25 by its alternating series: the terms grow to 6 * 10^9, the sum is 10^-11.
template <class Number>
Number small_exponential() {
  Number term = 1, sum = 1;
  for (int k = 1; k < 200; ++k) {
    term *= Number(-25) / Number(k);
    sum += term;
  }
  return sum;
}

// The smaller root of x^2 - 10^9 x + 1 = 0. In doubles it is lost in the square root's last digit;
// with fma() nothing is lost before the root.
template <class Number>
Number smaller_root() {
  using std::fma, std::sqrt;
  const Number b = 1e9, discriminant = fma(b, b, Number(-4));
  return (b - sqrt(discriminant)) / Number(2);
}

// The exact result is out of range. Only some rounding modes give infinity.
quad twice_the_largest() { return std::numeric_limits<quad>::max() * 2; }

std::string names(std::uint32_t status) {
  static constexpr struct {
    std::uint32_t flag;
    const char* name;
  } flags[] = {{ZORVAC_FP_INVALID, "invalid"},     {ZORVAC_FP_DENORMAL, "denormal"},
               {ZORVAC_FP_OVERFLOW, "overflow"},   {ZORVAC_FP_DIVIDE_BY_ZERO, "zero-divide"},
               {ZORVAC_FP_UNDERFLOW, "underflow"}, {ZORVAC_FP_INEXACT, "inexact"}};
  std::string text;
  for (const auto& f : flags)
    if ((status & f.flag) != 0) (text += ' ') += f.name;
  return text;
}

void row(const char* label, const std::string& value, std::uint32_t status = 0) {
  const int width = status != 0 ? 42 : 0;
  std::printf("  %-12s %-*s%s\n", label, width, value.c_str(), names(status).c_str());
}

void show(const char* title, double (*in_doubles)(), quad (*in_quads)(), const char* exact) {
  static constexpr struct {
    std::uint32_t rounding;
    const char* name;
  } modes[] = {{ZORVAC_FP_TO_NEAREST, "to nearest"},
               {ZORVAC_FP_DOWN, "down"},
               {ZORVAC_FP_UP, "up"},
               {ZORVAC_FP_TOWARD_ZERO, "toward zero"}};
  std::printf("%s\n", title);
  if (in_doubles != nullptr) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", in_doubles());
    row("in doubles", text);
  }
  for (const auto& mode : modes) {
    _controlfp(mode.rounding, ZORVAC_FP_ROUNDING);
    _clearfp();
    const quad value = in_quads();
    const std::uint32_t status = _statusfp();
    _controlfp(ZORVAC_FP_TO_NEAREST, ZORVAC_FP_ROUNDING);
    row(mode.name, to_string(value, 34), status);
  }
  row("true value", exact);
}

}  // namespace

int main() {
  show("pi, by Machin's formula", pi<double>, pi<quad>, "3.141592653589793238462643383279503");
  show("\ne^-25, by a series that cancels", small_exponential<double>, small_exponential<quad>,
       "1.388794386496402059466176374608686e-11");
  show("\na root of x^2 - 10^9 x + 1", smaller_root<double>, smaller_root<quad>,
       "1.000000000000000001000000000000000e-09");
  show("\ntwice the largest quad", nullptr, twice_the_largest,
       "2.379462990714463530171518653256014e+4932");
}
