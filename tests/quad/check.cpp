// The one place that calls routines, and compares.
#include <ucontext.h>

#include <algorithm>
#include <csignal>
#include <iomanip>
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

std::string names_of(unsigned flags) {
  constexpr const char* names[] = {"invalid",  "denormal",  "division-by-zero",
                                   "overflow", "underflow", "inexact"};
  std::string text;
  for (unsigned i = 0; i < std::size(names); ++i)
    if ((flags >> i & 1) != 0) text += (text.empty() ? "" : " ") + std::string(names[i]);
  return text.empty() ? "none" : text;
}

std::string hex(word value, int digits) {
  std::ostringstream text;
  text << std::hex << std::setfill('0') << "0x";
  if (digits > 16) text << std::setw(digits - 16) << static_cast<std::uint64_t>(value >> 64) << "'";
  text << std::setw(std::min(digits, 16)) << static_cast<std::uint64_t>(value);
  return text.str();
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

// That memory, and the registers.
struct outcome {
  std::array<std::uint64_t, span / 8> memory;
  registers after;
  bool operator==(const outcome&) const = default;
};

// Where in the block operands and result begin.
struct places {
  std::size_t operands, result;

  places(kind takes, const layout& lies) {
    const auto count = static_cast<std::size_t>(operand_count(takes));
    operands = span - 16 * count - (lies.at_page_end ? 0 : inner_place);
    result = lies.result_over == 0 ? operands - result_size
                                   : operands + 16 * static_cast<std::size_t>(lies.result_over - 1);
  }
  [[nodiscard]] std::string name_of_word(std::size_t at) const {
    const auto within = [at](const std::string& name, std::size_t start) {
      return name + ", bytes from " + std::to_string(at - start);
    };
    if (at >= result && at < result + result_size) return within("the result", result);
    if (at >= operands && at < span) return within("the operands and behind", operands);
    return within("the memory before", 0);
  }
};

// The first difference between two outcomes.
std::string difference(const outcome& expected, const outcome& seen, const places& in_block) {
  const auto told = [](const std::string& what, const std::string& e, const std::string& s) {
    return what + ": expected " + e + ", seen " + s;
  };
  const auto numbers = [&](const std::string& what, std::uint64_t e, std::uint64_t s, int digits) {
    return told(what, hex(e, digits), hex(s, digits));
  };
  for (std::size_t i = 0; i < expected.memory.size(); ++i)
    if (const std::uint64_t e = expected.memory[i], s = seen.memory[i]; e != s)
      return numbers(in_block.name_of_word(8 * i), e, s, 16);
  const registers &e = expected.after, &s = seen.after;
  if (const unsigned x = e.mxcsr & all_flags, y = s.mxcsr & all_flags; x != y)
    return told("flags in MXCSR", names_of(x), names_of(y));
  if (e.status != s.status) return told("flags in the x87", names_of(e.status), names_of(s.status));
  if (const unsigned x = e.mxcsr & all_masked, y = s.mxcsr & all_masked; x != y)
    return told("unmasked and not trapped", names_of(~x >> mask_shift), names_of(~y >> mask_shift));
  if (e.mxcsr != s.mxcsr) return numbers("MXCSR", e.mxcsr, s.mxcsr, 4);
  return numbers("x87 control word", e.control, s.control, 4);
}

std::string description(const operands& in, int count, const circumstances& when) {
  constexpr const char* roundings[] = {"to nearest", "down", "up", "toward zero"};
  std::string text = std::string("  rounding ") + roundings[when.rounding] + ", " +
                     when.lies->name + ", processor " + when.on->name +
                     "\n  raised before: " + names_of(when.raised_before) +
                     "; unmasked: " + names_of(when.unmasked);
  if ((when.flush & mxcsr_bit::flush_to_zero) != 0) text += "; flush-to-zero";
  if ((when.flush & mxcsr_bit::denormals_are_zero) != 0) text += "; denormals-are-zero";
  for (int i = 0; i < count; ++i)
    text += "\n  operand " + std::to_string(i + 1) + ": " + hex(in[static_cast<unsigned>(i)], 32);
  return text;
}

// The flags that a routine raises where the processor flushes. The operation that raises the
// denormal flag alone has a tiny result, which is exact until it is flushed.
unsigned with_flushing(unsigned flags, unsigned flush) {
  if ((flush & mxcsr_bit::denormals_are_zero) != 0)
    return (flags & of_tiny_operands) != 0 ? 0 : flags & ~denormal;
  const bool flushed = (flush & mxcsr_bit::flush_to_zero) != 0 && (flags & denormal) != 0;
  return flushed ? flags | underflow | inexact : flags;
}

}  // namespace

std::string check(const routine& r, const operands& in, const circumstances& when) {
  static const guarded_block block(1);
  [[maybe_unused]] static const int catching = catch_traps();
  unsigned char* const start = block.end() - span;
  const places at(r.takes, *when.lies);
  const auto observed = [&](const registers& begin, auto entry) {
    std::memset(start, 0x55, span);
    std::memcpy(start + at.operands, in.data(), static_cast<unsigned>(16 * operand_count(r.takes)));
    set(begin);
    entry(start + at.result, start + at.operands);
    outcome all{{}, current()};
    set(initial);
    std::memcpy(&all.memory, start, span);
    return all;
  };
  __zorva_cpu_feature_indicator = when.on->indicator;

  // The oracle may use the x87, which then rounds alike. Those of complex operations are made of
  // this library's real ones, and so know by themselves what raises which flag.
  const bool composed = r.takes == kind::four;
  registers begin{all_masked | when.rounding << rounding_shift | (composed ? when.flush : 0),
                  static_cast<std::uint16_t>(initial.control | when.rounding << 10), 0};
  unsigned flags = 0;
  outcome expected = observed(begin, [&](auto... places) { flags = r.expected(places...); });
  const auto report = [&](const std::string& what, const std::string& wrong) {
    return r.name + what + "\n" + description(in, operand_count(r.takes), when) + "\n" + wrong;
  };
  if (flags == no_agreement) return report("", "two oracles disagree");
  if (!composed) flags = with_flushing(flags, when.flush);

  begin = {all_masked | when.rounding << rounding_shift | when.flush | when.raised_before,
           unlikely_control, 0};
  begin.mxcsr &= ~(when.unmasked << mask_shift);
  expected.after = {begin.mxcsr | (flags & all_flags), unlikely_control,
                    static_cast<std::uint16_t>(flags >> x87_flags_shift & all_flags)};
  // A subnormal operand traps as underflow too, since the operation that raises it has a tiny
  // result. What traps is done again, all exceptions masked.
  const unsigned trapping =
      when.unmasked == underflow ? underflow | denormal | exact_underflow : when.unmasked;
  if ((flags & trapping) != 0) {
    expected.after.mxcsr |= all_masked | when.unmasked;
    if ((flags & trapping & exact_underflow) != 0 && (when.flush & mxcsr_bit::flush_to_zero) != 0)
      expected.after.mxcsr |= inexact;
  }

  for (std::size_t i = 0; i < r.entries.size(); ++i) {
    const outcome seen = observed(begin, r.entries[i]);
    if (seen == expected) continue;
    return report(", entry " + std::to_string(i + 1) + " of its row",
                  "first difference in " + difference(expected, seen, at));
  }
  return {};
}

}  // namespace zorvac::test
