#ifndef ZORVAC_DIAG_SUBSTITUTION_H
#define ZORVAC_DIAG_SUBSTITUTION_H
// Makes a text fit to be substituted into a message, whatever its characters and its length.
//
// The print routine uses the finished message as a format again, and ends the process when the
// message does not fit its buffer. In some languages names of variables contain percent signs
// ("point%next"); in others, names have thousands of characters. A report must survive both. So a
// single percent sign is doubled here, and the text is cut to the room. Two percent signs in a row
// already are what a format needs for one, and stay as they are.
#include <cstddef>
#include <cstring>

#include "diag/texts.h"
#include "startup/vrt_msg_support.h"

namespace zorvac::diag {

inline constexpr std::size_t longest_message = startup::message_buffer_bytes - 1;

// The room that a message in the language in use leaves for the one or two texts in it.
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
