#ifndef ZORVAC_DIAG_TEXTS_H
#define ZORVAC_DIAG_TEXTS_H
// The text in place of whatever cannot be found, and the small texts that readers build.
#include <cstddef>
#include <cstdint>

namespace zorvac::diag {

inline constexpr char tbk__default_unknown[] = "Unknown";

// As much of `text` as there is room for, and a zero byte.
inline void put_text(const char* text, char* to, std::size_t bytes) {
  if (bytes == 0) return;
  std::size_t length = 0;
  for (; text[length] != '\0' && length + 1 < bytes; ++length) to[length] = text[length];
  to[length] = '\0';
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
