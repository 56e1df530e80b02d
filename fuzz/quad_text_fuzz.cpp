// The C++ type's text against the C library's: what a fuzzer makes up is read as a number, decimal
// or hexadecimal; and the number is written, with a notation and a precision from the first bytes.
#include <array>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>

#include "quads.h"
#include "zorvac/quad.hpp"

using namespace zorvac::test;
using std::chars_format;
using zorvac::quad;

// Not every compiler's headers declare them.
extern "C" __float128 c_library_read(const char* text, char** end) __asm__("strtof128");
extern "C" int c_library_write(char* to, std::size_t size, const char* format,
                               __float128 value) __asm__("strfromf128");

namespace {

void expect(bool holds, const char* what, const std::string& text) {
  if (holds) return;
  std::cerr << what << ": \"" << text << "\"\n";
  std::abort();
}

quad read(const std::string& text, chars_format format) {
  quad value = 1;
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), value, format);
  // The C library knows more: white space, "0x", payloads of NaNs.
  const auto start = text.find_first_of("0123456789.iInN");
  const bool decimal = format == chars_format::general;
  const bool alike = start < text.size() && start <= 1 &&
                     text.find_first_of("xX(\0") > text.size() &&
                     (start == 0 || text[0] == '-' || text[0] == '+') &&
                     (decimal || (start == 0 && text[0] > '0' && text[0] <= '9'));
  if (!alike) return value;
  const std::string theirs = (decimal ? "" : "0x") + text;
  char* stop = nullptr;
  const word expected = bits(c_library_read(theirs.c_str(), &stop));
  const auto length = stop == theirs.c_str() ? 0 : stop - theirs.c_str() - (decimal ? 0 : 2);
  expect(end - text.data() == length, "another length is read", text);
  if (error == std::errc())
    expect(bits(value) == expected, "another number is read", text);
  else if (error == std::errc::result_out_of_range)
    expect(magnitude(expected) == infinity || magnitude(expected) == 0, "it is in range", text);
  return value;
}

void write(quad value, unsigned notation, int precision) {
  constexpr chars_format formats[] = {chars_format::scientific, chars_format::fixed,
                                      chars_format::general, chars_format::hex};
  static std::array<char, 40'000> ours, theirs;
  const std::string format = "%." + std::to_string(precision) + "efga"[notation];
  c_library_write(theirs.data(), theirs.size(), format.c_str(), static_cast<__float128>(value));
  std::string expected = theirs.data();
  if (notation == 3 && isfinite(value)) expected.erase(expected.find("0x"), 2);
  const auto end =
      to_chars(ours.data(), ours.data() + ours.size(), value, formats[notation], precision).ptr;
  expect(std::string(ours.data(), end) == expected, "another text is written", expected);

  if (isnan(value)) return;
  const quad back = quad::parse(to_string(value)).value_or(quad());
  expect(bits(back) == bits(value), "the shortest text is of another number", to_string(value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 3, size - 3);
  const unsigned notation = data[0] & 3;
  const int precision = (data[1] | data[2] << 8) % 12'000;
  write(read(text, (data[0] & 4) != 0 ? chars_format::hex : chars_format::general), notation,
        precision);
  if (text.size() >= 16) write(quad::from_bits(load<word>(text.data())), notation, precision);
  return 0;
}
