#ifndef ZORVAC_DIAG_SUBSTITUTION_H
#define ZORVAC_DIAG_SUBSTITUTION_H
// A text as it may be substituted into a message, whatever its characters and its length.
//
// The print routine takes the finished message once more as a format, and ends the process when the
// message does not fit its buffer. Variables of some languages have per-cent signs in their names
// ("point%next"), and the names of others run to thousands of characters; a report must survive
// both. So a per-cent sign that stands alone is doubled here, and what is beyond the room is left
// out. Two of them are a format's way to write one, and stay what they are.
#include <cstddef>
#include <cstring>

#include "diag/texts.h"
#include "startup/vrt_msg_support.h"

namespace zorvac::diag {

inline constexpr std::size_t longest_message = startup::message_buffer_bytes - 1;

// What the fixed part of a message with one or two texts, in the language in use, leaves for them.
inline std::size_t room_in_message(int number) {
  return longest_message - std::strlen(__libvrt_get_msg(number, 2, "", ""));
}

class substitution {
 public:
  // As much of `text` as fits in `room` bytes, and at most `limit` characters; both are at most the
  // longest message.
  explicit substitution(const char* text, std::size_t room = longest_message,
                        std::size_t limit = longest_message) {
    char name[longest_message + 1];
    put_text(text == nullptr ? "(null)" : text, name, limit + 1);
    hide_commands(name);
    for (const char* at = name; *at != '\0'; ++at) {
      const bool per_cent = *at == '%';
      if (size_ + (per_cent ? 2 : 1) > room) break;
      text_[size_++] = *at;
      if (!per_cent) continue;
      text_[size_++] = '%';
      if (at[1] == '%') ++at;  // the sign is doubled already
    }
  }
  [[nodiscard]] const char* c_str() const { return text_; }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  std::size_t size_ = 0;
  char text_[longest_message + 1] = {};
};

}  // namespace zorvac::diag
#endif
