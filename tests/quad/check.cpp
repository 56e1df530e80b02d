// How a routine is tried: on which operands, and the one place that calls and compares.
#include <ucontext.h>

#include <algorithm>
#include <bit>
#include <csignal>
#include <random>
#include <sstream>

#include "quads.h"
#include "support/guard_pages.h"
#include "zorvac/cpu.h"

namespace zorvac::test {

void set(const registers& r) {
  const std::uint16_t environment[14] = {r.control, 0, r.status, 0, 0xffff};  // as FLDENV has it
  asm volatile("fnclex\n\tfldenv %0" : : "m"(environment));
  __builtin_ia32_ldmxcsr(r.mxcsr);
}
registers current() {
  registers r{__builtin_ia32_stmxcsr(), 0, 0};
  asm volatile("fnstcw %0\n\tfnstsw %1" : "=m"(r.control), "=m"(r.status) : : "memory");
  r.status &= all_flags;
  return r;
}

namespace {

using enum kind;

constexpr word ones(int n) { return n == 0 ? 0 : ~word{0} >> (128 - n); }

struct generator {
  kind takes;
  bool is_32 = takes == binary32, is_64 = takes == binary64;
  int fraction_bits = is_32 ? 23 : is_64 ? 52 : takes == extended ? 63 : 112;
  int special = is_32 ? 0xff : is_64 ? 0x7ff : 0x7fff;  // infinity's exponent
  std::mt19937_64 random{4};

  operands operator()() {
    const auto [ar, br] = related();
    const auto [ai, bi] = related();
    if (takes == four) return {ar, ai, br, bi};
    if (takes == pair) return {ar, br};
    return {operand(), static_cast<word>(below(6) - 1)};  // modes of rounding, two of them unknown
  }

  int below(int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); }
  word any() { return word{random()} << 64 | random(); }

  // As it lies in memory: in the x87's format with the leading one, now and then the wrong one;
  // above a narrow number anything.
  word number(bool negative, int exponent, word fraction) {
    const bool leading_one = takes == extended && (exponent != 0) != (below(32) == 0);
    const int exponent_at = fraction_bits + (takes == extended),
              sign_at = exponent_at + std::popcount(static_cast<unsigned>(special));
    return (any() << 1 | word{negative}) << sign_at | static_cast<word>(exponent) << exponent_at |
           word{leading_one} << fraction_bits | (fraction & ones(fraction_bits));
  }

  // Single bits, runs of ones, and few leading bits, with a tie behind them, or what lies beside.
  word digits(int width) {
    const word bit = word{1} << below(width), other = word{1} << below(width),
               run = ones(below(width + 1)) ^ ones(below(width + 1)),
               beside = static_cast<word>(below(5) - 2);
    const word shapes[] = {0, bit, bit ^ other, ~bit, run, any() * bit, any() * bit, any()};
    return (shapes[below(8)] + (below(2) != 0 ? beside : 0)) & ones(width);
  }

  // At or near the ends of the range, of this format and of narrower ones, and where integers are.
  int exponent() {
    const int bias = special / 2, reach = below(2) == 0 ? 2 : 135;
    const int centres[] = {0,         bias - 1074, bias - 149,  bias,
                           bias + 64, bias + 127,  bias + 1023, special};
    const int near = centres[below(8)] + below(2 * reach + 1) - reach;
    return below(8) == 0 ? below(special) : std::clamp(near, 0, special);
  }

  word operand() {
    if (takes != integer) return number(below(2) != 0, exponent(), digits(fraction_bits));
    const word n = digits(1 + below(128));
    return below(2) != 0 ? n : -n;
  }

  // Two quads that may meet where an operation is delicate.
  std::array<word, 2> related() {
    const word a = operand(), b = operand();
    const int ea = static_cast<int>(magnitude(a) >> 112), near = below(261) - 130;
    const int bias = special / 2, huge = special + bias - ea;
    // Sums; products, tiny and huge; quotients.
    const int exponents[] = {ea + near, bias - ea + near, huge + near / 32, bias + ea + near,
                             ea - bias - near / 32};
    const int eb = exponents[below(5)];
    const word met = eb < 0 || eb > special ? b : number(b >> 127 != 0, eb, below(2) != 0 ? a : b),
               product = bits(load<__float128>(&a) * load<__float128>(&b)),  // of a quotient
        almost = product + static_cast<word>(below(5) - 2);
    const std::array<word, 2> pairs[] = {
        {a, a}, {a, a ^ word{1} << below(128)}, {almost, b}, {a, b}, {a, met}};
    return pairs[std::min(below(10), 4)];
  }
};

// 24-bit precision, rounding up, all exceptions masked: nothing may look at it, nor change it.
constexpr std::uint16_t unlikely_control = 0x087f;

// What traps goes on with all exceptions masked, which tells that it did.
int catch_traps() {
  struct sigaction action {};
  action.sa_flags = SA_SIGINFO;
  action.sa_sigaction = [](int, siginfo_t*, void* context) {
    static_cast<ucontext_t*>(context)->uc_mcontext.fpregs->mxcsr |= all_masked;
  };
  return sigaction(SIGFPE, &action, nullptr);
}

// Room for a result of two quads, four operands, and the distance from the end of the block.
constexpr std::size_t span = 160, result_size = 32, inner_place = 40;

// That memory as words, and the registers.
using outcome = std::array<std::uint64_t, span / 8 + 1>;

template <class T>
std::string words(const T& value) {
  std::ostringstream text;
  for (const auto w : load<std::array<std::uint64_t, sizeof value / 8>>(&value))
    text << ' ' << std::hex << w;
  return text.str();
}

}  // namespace

std::function<operands()> operands_for(kind takes) { return generator{takes}; }

// What a routine should not depend on varies from call to call: where operands and result lie,
// flags raised before, flush modes, the exception that is unmasked, the processor's class.
std::string check(const routine& r, unsigned rounding_mode, const operands& in) {
  static const guarded_block block(1);
  [[maybe_unused]] static const int catching = catch_traps();
  word mixed = rounding_mode + 1;
  for (const word w : in) mixed = (mixed ^ w ^ w >> 64) * 0x9e37'79b9'7f4a'7c15;
  const auto choice = static_cast<std::uint32_t>(mixed >> 64);
  __zorva_cpu_feature_indicator = choice >> 31 != 0 ? 0xff : 1;

  // The operands end where the block does, or lie aligned to 8 bytes only, the result before or
  // anywhere among them.
  const std::size_t count = r.takes == four ? 4 : r.takes == pair || r.takes == with_mode ? 2 : 1;
  unsigned char* const start = block.end() - span;
  unsigned char *at = block.end() - 16 * count, *result = at - result_size;
  if (choice % 2 != 0) {
    at -= inner_place;
    result = choice % 4 == 1 ? result - inner_place : at + 16 * (choice / 4 % count);
  }
  const auto observed = [&](const registers& begin, auto entry) {
    std::memset(start, 0x55, span);
    std::memcpy(at, in.data(), 16 * count);
    set(begin);
    entry(result, at);
    outcome all{};
    store(&all.back(), current());
    set(initial);
    std::memcpy(&all, start, span);
    return all;
  };

  // The oracle may use the x87, which then rounds alike.
  registers begin{all_masked | rounding_mode << rounding_shift,
                  static_cast<std::uint16_t>(initial.control | rounding_mode << 10), 0};
  unsigned flags = 0;
  outcome expected = observed(begin, [&](auto... places) { flags = r.expected(places...); });
  begin.control = unlikely_control;
  const std::uint32_t variation = choice / 16 % 16, bit = 1U << choice / 256 % 6;
  const bool flushing = variation == 0;  // is for the processor's own formats; flags may not appear
  if (flushing) begin.mxcsr |= flush_modes;
  if (variation == 1) begin.mxcsr |= choice / 256 & all_flags;
  if (variation == 2 && r.takes != four) begin.mxcsr &= ~(bit << mask_shift);
  const unsigned trapping = bit == underflow ? bit | denormal | exact_underflow : bit;
  registers after{begin.mxcsr | (flushing ? 0 : flags & all_flags), unlikely_control,
                  static_cast<std::uint16_t>(flags >> x87_flags_shift & all_flags)};
  if ((begin.mxcsr & bit << mask_shift) == 0 && (flags & trapping) != 0)
    after.mxcsr |= all_masked | bit;
  store(&expected.back(), after);

  for (std::size_t i = 0; i < r.entries.size(); ++i) {
    outcome got = observed(begin, r.entries[i]);
    if (flushing) got.back() &= ~std::uint64_t{all_flags};  // of MXCSR
    if (got != expected)
      return r.name + words(in) + ": entry " + std::to_string(i) + " from" + words(begin) +
             "\n     got" + words(got) + "\nexpected" + words(expected);
  }
  return {};
}

}  // namespace zorvac::test
