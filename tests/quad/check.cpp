// The one place that calls routines and compares.
#include <ucontext.h>

#include <csignal>
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

// What a routine should not depend on varies from call to call: where operands and result lie,
// flags raised before, flush modes, the exception that is unmasked, the processor's class.
std::string check(const routine& r, unsigned rounding_mode, const operands& in) {
  using enum kind;
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
  const auto x87_rounding = static_cast<std::uint16_t>(initial.control | rounding_mode << 10);
  registers begin{all_masked | rounding_mode << rounding_shift, x87_rounding, 0};
  unsigned flags = 0;
  outcome expected = observed(begin, [&](auto... places) { flags = r.expected(places...); });
  begin.control = unlikely_control;
  const std::uint32_t variation = choice / 16 % 16, bit = 1U << choice / 256 % 6;
  const bool flushing = variation == 0;  // is for the processor's own formats; flags may not appear
  if (flushing) begin.mxcsr |= flush_modes;
  if (variation == 1) begin.mxcsr |= choice / 256 & all_flags;
  if (variation == 2 && r.takes != four) begin.mxcsr &= ~(bit << mask_shift);
  const bool unmasked = (begin.mxcsr & bit << mask_shift) == 0;
  const unsigned trapping = bit == underflow ? bit | denormal | exact_underflow : bit;
  registers after{begin.mxcsr | (flushing ? 0 : flags & all_flags), unlikely_control,
                  static_cast<std::uint16_t>(flags >> x87_flags_shift & all_flags)};
  if (unmasked && (flags & trapping) != 0) after.mxcsr |= all_masked | bit;
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
