#ifndef ZORVAC_CORE_TEXT_BUFFER_H
#define ZORVAC_CORE_TEXT_BUFFER_H
// A text of limited length in a buffer of its own, always terminated.
#include <cstddef>

namespace zorvac {

template <std::size_t Bytes>
class text_buffer {
 public:
  // Appends `text`, or as much of it as fits.
  void append(const char* text) {
    while (*text != '\0' && length_ + 1 < Bytes) text_[length_++] = *text++;
    text_[length_] = '\0';
  }
  void assign(const char* text) {
    length_ = 0;
    append(text);
  }
  [[nodiscard]] std::size_t length() const { return length_; }
  [[nodiscard]] bool empty() const { return length_ == 0; }
  [[nodiscard]] const char* c_str() const { return text_; }

 private:
  char text_[Bytes] = {};
  std::size_t length_ = 0;
};

}  // namespace zorvac
#endif
