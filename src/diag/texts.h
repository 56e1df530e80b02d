#ifndef ZORVAC_DIAG_TEXTS_H
#define ZORVAC_DIAG_TEXTS_H
// The text for what cannot be found, small texts that the readers build, and names that are safe to
// show.
#include <cstddef>
#include <cstdint>

namespace zorvac::diag {

inline constexpr char tbk__default_unknown[] = "Unknown";

// Copies as much of `text` as fits, and a zero byte.
inline void put_text(const char* text, char* to, std::size_t bytes) {
  if (bytes == 0) return;
  std::size_t length = 0;
  for (; text[length] != '\0' && length + 1 < bytes; ++length) to[length] = text[length];
  to[length] = '\0';
}

// The number of bytes at `text` that may be shown unchanged: those of one character, or 0 if its
// first byte may not be shown.
//
// Names come from files that anybody may have made, and go to terminals and logs. So bytes that a
// terminal takes for commands are not shown: 0 to 31, 127, and 128 to 159 unless they are part of a
// well-formed UTF-8 character above those controls (RFC 3629, 4). Bytes from 160 on, which names in
// other encodings have, are always shown: no terminal takes them for commands.
inline std::size_t bytes_to_show(const char* text) {
  constexpr std::uint32_t least[] = {0, 0, 0xa0, 0x800, 0x10000};  // by the length
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  std::uint32_t character = first & (0x7fu >> length);
  std::size_t read = 1;
  for (; read < length && (byte(read) & 0xc0) == 0x80; ++read)
    character = character << 6 | (byte(read) & 0x3fu);
  const bool is_surrogate = character >> 11 == 0x1b;
  const bool is_character = first >= 0xc0 && first < 0xf8 && read == length &&
                            character >= least[length] && character <= 0x10ffff && !is_surrogate;
  if (is_character) return length;
  return first >= 0xa0 ? 1 : 0;
}

// Replaces each byte that may not be shown by a question mark.
inline void hide_commands(char* name) {
  while (*name != '\0') {
    if (*name >= ' ' && *name <= '~') {  // the fast path: nearly all bytes of names
      ++name;
      continue;
    }
    const std::size_t shown = bytes_to_show(name);
    if (shown == 0) *name = '?';
    name += shown == 0 ? 1 : shown;
  }
}

template <std::size_t Bytes>
void put_unknown(char (&to)[Bytes]) {
  put_text(tbk__default_unknown, to, Bytes);
}

// A number in decimal, as %lu shows it.
class decimal {
 public:
  explicit decimal(std::uint64_t value) {
    do {
      *--begin_ = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
  }
  decimal(const decimal&) = delete;
  decimal& operator=(const decimal&) = delete;
  [[nodiscard]] const char* c_str() const { return begin_; }

 private:
  char text_[21] = {};
  char* begin_ = text_ + sizeof text_ - 1;
};

}  // namespace zorvac::diag
#endif
