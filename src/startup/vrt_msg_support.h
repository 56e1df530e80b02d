#ifndef ZORVAC_STARTUP_VRT_MSG_SUPPORT_H
#define ZORVAC_STARTUP_VRT_MSG_SUPPORT_H
// Numbered messages. They are looked up in the message catalogue if there is one, otherwise in the
// built-in table, and printed as whole lines. Every text that the library prints goes through here.
#include <cstddef>
#include <cstdint>

namespace zorvac::startup {

// The messages that the library itself uses, by their number in the table and in the catalogue.
namespace message {
inline constexpr int line_end = 0;
inline constexpr int constant_propagation_error = 1;
inline constexpr int formal_argument = 2;  // the first of three kinds of substitution
inline constexpr int i32_values = 5;       // the first of six types of values
inline constexpr int bad_second_argument = 11;
inline constexpr int not_built_for_processor = 23;
inline constexpr int allowed_processors = 24;
inline constexpr int uninitialized_use = 25;
inline constexpr int buffer_overrun = 26;
inline constexpr int no_error = 40;
inline constexpr int no_unwinder = 41;
// The processors that a program was built for, by the features that they all have.
inline constexpr int ssse3_processors = 42;
inline constexpr int sse3_processors = 43;
inline constexpr int quoral_m_processors = 44;
inline constexpr int quoral_4_processors = 45;
inline constexpr int sse4_1_processors = 46;
inline constexpr int sse4_2_processors = 47;
inline constexpr int movbe_processors = 48;
inline constexpr int not_built_for_system = 49;
inline constexpr int verify_avx = 50;
inline constexpr int verify_avx_f16c_rdrand = 51;
inline constexpr int verify_avx2 = 52;
inline constexpr int boundary_failure_of = 53;
inline constexpr int boundary_failure = 54;
inline constexpr int conversion_failure = 55;
inline constexpr int verify_features = 56;
inline constexpr int list_separator = 57;
inline constexpr int verify_compatible_library = 58;
inline constexpr int inconsistent_library = 59;
inline constexpr int uninitialized_use_at = 60;
}  // namespace message

struct table_entry {
  std::int32_t number;  // equal to the index
  std::int32_t category;
  const char* text;
};
inline constexpr int message_count = 61;

// The longest text that formatting may produce, including its terminator.
inline constexpr std::size_t message_buffer_bytes = 512;

// The streams of __libvrt_print: 1 is standard error, any other number is standard output.
inline constexpr int to_standard_output = 0;
inline constexpr int to_standard_error = 1;

}  // namespace zorvac::startup

extern "C" {

extern const zorvac::startup::table_entry vrt_msgtab[zorvac::startup::message_count];

// The text of message `msgno`, a number of the table; the empty text for 0. With nargs > 0 the text
// is a printf format for the arguments that follow, and the result is in a static buffer. Valid
// until the next call. If the result needs more than message_buffer_bytes, the C library ends the
// process as on a buffer overflow. Not re-entrant.
const char* __libvrt_get_msg(int msgno, int nargs, ...);

// Prints message `msgno` and a newline on standard error (dest 1) or standard output; for 0, only
// the newline. With nargs > 0 the text is formatted first, as above. The result is then printed as
// a format itself: a percent sign in a substituted text would be interpreted again, so callers
// double it (diag/substitution.h). Not re-entrant.
void __libvrt_print(int dest, int msgno, int nargs, ...);
}
#endif
