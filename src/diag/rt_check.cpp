// Checks that compiled code makes at run time: the guard words around the variables of a frame, the
// value of a narrowing conversion, the use of a variable that was never set.
//
// The check of a frame may change no vector register, so this file is compiled for general
// registers only. The entry of that check, in rt_check.S, saves the general registers.
#include <zorvac/diag.h>

#include <cstdint>
#include <type_traits>

#include "core/unaligned.h"
#include "diag/substitution.h"
#include "startup/vrt_msg_support.h"

namespace zorvac::diag {
namespace {

namespace message = startup::message;
using startup::to_standard_error;

constexpr std::uint32_t guard_word = 0xcccccccc;

void print(int number) { __libvrt_print(to_standard_error, number, 0); }

void print(int number, const char* name) {
  const substitution shown(name, room_in_message(number));
  __libvrt_print(to_standard_error, number, 1, shown.c_str());
}

// Each text has half of the room, plus what the other one leaves of the other half.
void print(int number, const char* name, const char* where) {
  const std::size_t room = room_in_message(number), half = room / 2, rest = room - half;
  const std::size_t name_bytes = substitution(name, room).size();
  const std::size_t where_bytes = substitution(where, room).size();
  const substitution name_shown(name, where_bytes < rest ? room - where_bytes : half);
  const substitution where_shown(where, name_bytes < half ? room - name_bytes : rest);
  __libvrt_print(to_standard_error, number, 2, name_shown.c_str(), where_shown.c_str());
}

// Prints a message between two empty lines and ends the process. The arguments are the message and
// the texts that are substituted.
template <class... Texts>
[[noreturn, gnu::noinline, gnu::cold]] void report(int number, Texts... texts) {
  print(message::line_end);
  print(number, texts...);
  print(message::line_end);
  __builtin_abort();
}

// A guard word may have any alignment, as may the variable beside it.
bool is_guarded(std::uintptr_t word) {
  const void* const place = reinterpret_cast<const void*>(word);  // NOLINT(*-int-to-ptr)
  return load_unaligned<std::uint32_t>(place) == guard_word;
}

// Address arithmetic is modulo 2^64, so no description of a variable overflows it.
template <class Variable>
void check(const Variable* entries, std::int32_t count, std::uintptr_t frame_base) {
  for (std::int32_t i = 0; i < count; ++i) {
    const Variable& entry = entries[i];
    const std::uintptr_t begin = frame_base + static_cast<std::uintptr_t>(entry.offset);
    const std::uintptr_t end = begin + static_cast<std::uintptr_t>(entry.size);
    if (is_guarded(begin - sizeof guard_word) && is_guarded(end)) continue;
    if (entry.name == nullptr || *entry.name == '\0') report(message::boundary_failure);
    report(message::boundary_failure_of, entry.name);
  }
}

// A value may be narrowed if its low part, read as signed or as unsigned, equals the value.
template <class Narrow, class Wide>
Narrow narrowed(Wide value) {
  const auto low = static_cast<Narrow>(value);
  if (value != low && value != static_cast<std::make_unsigned_t<Narrow>>(low))
    report(message::conversion_failure);
  return low;
}

}  // namespace
}  // namespace zorvac::diag

using zorvac::diag::check;
using zorvac::diag::narrowed;
using zorvac::diag::report;
namespace message = zorvac::diag::message;

extern "C" {

// The entry in rt_check.S calls this.
__attribute__((visibility("hidden"))) void zorvac_check_stack_variables(
    const zorvac_stack_variables* variables, std::uintptr_t frame_base) {
  check(variables->short_entries, variables->short_count, frame_base);
  check(variables->long_entries, variables->long_count, frame_base);
}

std::int8_t _RTC_Check_2_to_1(std::int16_t value) { return narrowed<std::int8_t>(value); }
std::int8_t _RTC_Check_4_to_1(std::int32_t value) { return narrowed<std::int8_t>(value); }
std::int8_t _RTC_Check_8_to_1(std::int64_t value) { return narrowed<std::int8_t>(value); }
std::int16_t _RTC_Check_4_to_2(std::int32_t value) { return narrowed<std::int16_t>(value); }
std::int16_t _RTC_Check_8_to_2(std::int64_t value) { return narrowed<std::int16_t>(value); }
std::int32_t _RTC_Check_8_to_4(std::int64_t value) { return narrowed<std::int32_t>(value); }

void __zorva_rtc_uninit_use(const char* name) { report(message::uninitialized_use, name); }
void __zorva_rtc_uninit_use_src(const char* name, const char* where) {
  report(message::uninitialized_use_at, name, where);
}
}
