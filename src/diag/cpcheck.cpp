// The check of a constant that the compiler propagated: compares the value that the program has at
// run time with the value that the compiler used instead.
//
// Reports go to standard output, which abort does not flush, so every line is flushed when it is
// printed. So no line is lost on a pipe or in a file, even where the next line ends the process
// (two doubles of 300 digits do not fit in a message).
#include <zorvac/diag.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "diag/substitution.h"
#include "startup/vrt_msg_support.h"

namespace zorvac::diag {
namespace {

namespace message = startup::message;

// The codes that compiled code passes. The messages have the same order, from message::i32_values.
enum value_type : std::uint32_t { i32, si32, f32, i64, si64, f64, type_count };

constexpr std::size_t kind_name_bytes = 64;

template <class... Values>
void print_line(int number, Values... values) {
  __libvrt_print(startup::to_standard_output, number, sizeof...(values), values...);
  std::fflush(stdout);
}

float single_of(const zorvac_cp_value& value) {
  return __builtin_bit_cast(float, static_cast<std::uint32_t>(value.first));
}
double double_of(const zorvac_cp_value& value) { return __builtin_bit_cast(double, value.first); }

// A NaN equals nothing, not even itself, so a propagated NaN always fails the check.
bool agree(std::uint32_t type, const zorvac_cp_value& a, const zorvac_cp_value& b) {
  switch (type) {
    case f32:
      return single_of(a) == single_of(b);
    case f64:
      return double_of(a) == double_of(b);
    case i64:
    case si64:
      return a.first == b.first && a.second == b.second;
    default:
      return a.first == b.first;
  }
}

void print_values(std::uint32_t type, const zorvac_cp_value& a, const zorvac_cp_value& b) {
  const int number = message::i32_values + static_cast<int>(type);
  switch (type) {
    case f32:
      return print_line(number, static_cast<double>(single_of(a)),
                        static_cast<double>(single_of(b)));
    case f64:
      return print_line(number, double_of(a), double_of(b));
    case i64:
    case si64:
      return print_line(number, a.first, a.second, b.first, b.second);
    default:
      return print_line(number, a.first, b.first);
  }
}

// The name of kind k is the k-th message after that of the first kind, for any k. Where there is no
// such message, the name is empty.
const char* name_of(std::int32_t kind) {
  const std::int64_t number = std::int64_t{kind} + message::formal_argument;
  const bool exists = number >= 0 && number < startup::message_count;
  return __libvrt_get_msg(exists ? static_cast<int>(number) : message::line_end, 0);
}

}  // namespace
}  // namespace zorvac::diag

extern "C" void _IPO_Check_CP(int32_t kind, uint32_t type, zorvac_cp_value expected,
                              zorvac_cp_value actual) {
  using namespace zorvac::diag;
  if (type >= type_count) {
    print_line(message::bad_second_argument);
    std::abort();
  }
  if (agree(type, expected, actual)) return;
  const substitution name(name_of(kind), 2 * kind_name_bytes, kind_name_bytes);
  print_line(message::constant_propagation_error, name.c_str());
  print_values(type, expected, actual);
  std::abort();
}
