#ifndef ZORVAC_DIAG_SUBSTITUTION_H
#define ZORVAC_DIAG_SUBSTITUTION_H
// A text as it may be substituted into a message, whatever its characters and its length.
//
// The print routine takes the finished message once more as a format, and ends the process when the
// message does not fit its buffer. Variables of some languages have per-cent signs in their names
// ("point%next"), and the names of others run to thousands of characters; a report must survive
// both. So a per-cent sign that stands alone is doubled here, and what is beyond `Bytes` is left
// out. Two of them are a format's way to write one, and stay what they are.
#include <cstddef>

namespace zorvac::diag {

template <std::size_t Bytes>
class substitution {
 public:
  // At most `limit` characters of `text`.
  explicit substitution(const char* text, std::size_t limit = Bytes) {
    if (text == nullptr) text = "(null)";
    std::size_t used = 0;
    for (std::size_t i = 0; i < limit && text[i] != '\0'; ++i) {
      const bool per_cent = text[i] == '%';
      if (used + (per_cent ? 2 : 1) > Bytes) break;
      text_[used++] = text[i];
      if (!per_cent) continue;
      text_[used++] = '%';
      if (i + 1 < limit && text[i + 1] == '%') ++i;  // the sign is doubled already
    }
  }
  [[nodiscard]] const char* c_str() const { return text_; }

 private:
  char text_[Bytes + 1] = {};
};

}  // namespace zorvac::diag
#endif
