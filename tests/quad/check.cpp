// The one place that calls routines and compares their effects.
#include <ucontext.h>

#include <csignal>

#include "quads.h"
#include "support/bytes.h"
#include "support/guard_pages.h"
#include "zorvac/cpu.h"

namespace zorvac::test {

void set(const registers& r) {
  const std::uint16_t environment[14] = {r.control, 0, r.status, 0, 0xffff};  // FLDENV's image
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
  constexpr const char* names[] = {"IE ", "DE ", "ZE ", "OE ", "UE ", "PE "};
  std::string text;
  for (int i = 0; i < 6; ++i) text += (flags >> i & 1) != 0 ? names[i] : "";
  return text.empty() ? "none " : text;
}

std::string hex(word value, std::size_t bytes) {
  return bits_of(std::as_bytes(std::span(&value, 1)).first(bytes));
}

std::string difference(const registers& expected, const registers& seen) {
  const std::string places[][3] = {
      {"flags in MXCSR", names_of(expected.mxcsr), names_of(seen.mxcsr)},
      {"flags in the x87", names_of(expected.status), names_of(seen.status)},
      {"MXCSR", hex(expected.mxcsr, 4), hex(seen.mxcsr, 4)},
      {"the x87 control word", hex(expected.control, 2), hex(seen.control, 2)},
  };
  for (const auto& [place, e, s] : places)
    if (e != s) return place + ": expected " + e + ", seen " + s;
  return {};
}

namespace {

// 24-bit precision, rounding up, all exceptions masked: no routine may depend on it or change it.
constexpr std::uint16_t unlikely_control = 0x087f;

// After a trap, the routine goes on with all exceptions masked. The masks show that it trapped.
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

// The first difference. A place in memory is an offset from the result.
std::string difference(const outcome& expected, const outcome& seen, std::ptrdiff_t result_at) {
  for (std::size_t at = 0; at < span; at += 8)
    if (const auto e = expected.memory[at / 8], s = seen.memory[at / 8]; e != s)
      return "8 bytes from byte " + std::to_string(static_cast<std::ptrdiff_t>(at) - result_at) +
             " of the result: expected " + hex(e, 8) + ", seen " + hex(s, 8);
  return difference(expected.after, seen.after);
}

// The circumstances of a call. In most calls only the places of the operands vary. None of them may
// change the result or the flags. The flags under flush modes are in the difficult cases.
struct circumstances {
  kind takes;
  unsigned rounding;
  case_random random;
  std::size_t result_over = random.below(1 + operand_count(takes));  // an operand; 0: none
  bool at_page_end = result_over == 0 && random.one_in(2);           // else aligned to 8
  std::uint64_t indicator = random.one_in(2) ? level::sse3 : level::generic;
  std::size_t unusual = random.below(12);
  bool flushes = unusual == 0;
  unsigned raised_before = unusual == 1 ? random() & all_flags : 0;
  // The oracles of complex operations do not know whether a step underflowed exactly.
  unsigned unmasked = unusual == 2 && takes != kind::four ? 1U << random.below(6) : 0;
};

std::string description(const operands& in, const circumstances& when) {
  constexpr const char* roundings[] = {"to nearest", "down", "up", "toward zero"};
  std::string text = std::string("  rounding ") + roundings[when.rounding] +
                     ", result over operand " + std::to_string(when.result_over) + ", indicator " +
                     hex(when.indicator, 1) + "\n  raised before: " + names_of(when.raised_before) +
                     "; unmasked: " + names_of(when.unmasked);
  if (when.flushes) text += "; flushing";
  if (when.at_page_end) text += "; operands at a page's end";
  for (unsigned i = 0; i < operand_count(when.takes); ++i)
    text += "\n  operand " + std::to_string(i + 1) + ": " + hex(in[i]);
  return text;
}

}  // namespace

std::string check(const routine& r, const operands& in, unsigned rounding, std::uint64_t seed) {
  const circumstances when{r.takes, rounding, case_random(~(4 * seed + rounding))};
  static const guarded_block block(1);
  [[maybe_unused]] static const int catching = catch_traps();
  const unsigned count = operand_count(r.takes);
  unsigned char* const start = block.end() - span;
  unsigned char* const first = block.end() - 16 * count - (when.at_page_end ? 0 : inner_place);
  unsigned char* const result =
      when.result_over == 0 ? first - result_size : first + 16 * (when.result_over - 1);
  const auto observed = [&](const registers& begin, auto entry) {
    std::memset(start, 0x55, span);
    std::memcpy(first, in.data(), 16 * count);
    set(begin);
    entry(result, first);
    outcome all{{}, current()};
    set(initial);
    std::memcpy(&all.memory, start, span);
    return all;
  };
  __zorva_cpu_feature_indicator = when.indicator;

  // The oracle may use the x87, which rounds in the same mode.
  registers begin{all_masked | rounding << rounding_shift,
                  static_cast<std::uint16_t>(initial.control | rounding << 10), 0};
  unsigned flags = 0;
  outcome expected = observed(begin, [&](auto... places) { flags = r.expected(places...); });

  begin.mxcsr |= when.raised_before;
  begin.mxcsr &= ~(when.unmasked << mask_shift);
  if (when.flushes) begin.mxcsr |= mxcsr_bit::flush_to_zero | mxcsr_bit::denormals_are_zero;
  begin.control = unlikely_control;
  expected.after = {begin.mxcsr | (flags & all_flags), unlikely_control,
                    static_cast<std::uint16_t>(flags >> x87_flags_shift & all_flags)};
  // A subnormal operand traps as underflow too, because the operation that raises DE has a tiny
  // result. After a trap the operation runs again with all exceptions masked.
  const unsigned trapping =
      when.unmasked == underflow ? underflow | denormal | exact_underflow : when.unmasked;
  if ((flags & trapping) != 0) expected.after.mxcsr |= all_masked | when.unmasked;
  const unsigned ignored = when.flushes ? all_flags : 0;
  expected.after.mxcsr |= ignored;

  for (std::size_t i = 0; i < r.entries.size(); ++i) {
    outcome seen = observed(begin, r.entries[i]);
    seen.after.mxcsr |= ignored;
    if (seen == expected) continue;
    return r.name + (", entry " + std::to_string(i + 1)) + " of its row\n" + description(in, when) +
           "\n  first difference in " + difference(expected, seen, result - start);
  }
  return {};
}

}  // namespace zorvac::test
