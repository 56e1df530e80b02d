// The text of an editor: one buffer with a gap at the cursor. Typing moves nothing, and moving the
// cursor moves only the characters that it passes. Their old and new places may overlap, so they
// are moved with the library's memmove. Typed text comes from another buffer, so memcpy is enough.
#include <zorvac/mem.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace {

class gap_buffer {
 public:
  void move_cursor(std::size_t to) {
    char* const text = room_.data();
    if (to < cursor_)
      _zorva_fast_memmove(text + to + gap_, text + to, cursor_ - to);
    else
      _zorva_fast_memmove(text + cursor_, text + cursor_ + gap_, to - cursor_);
    cursor_ = to;
  }

  void type(std::string_view words) {
    if (words.size() > gap_) widen(words.size());
    _zorva_fast_memcpy(room_.data() + cursor_, words.data(), words.size());
    cursor_ += words.size();
    gap_ -= words.size();
  }

  void erase_behind(std::size_t characters) { gap_ += characters; }

  [[nodiscard]] std::string text() const {
    return std::string(room_.data(), cursor_).append(room_.data() + cursor_ + gap_, behind());
  }

 private:
  [[nodiscard]] std::size_t behind() const { return room_.size() - cursor_ - gap_; }

  void widen(std::size_t least) {
    const std::size_t more = std::max(least, room_.size());
    const std::size_t tail = behind(), old_start = cursor_ + gap_;
    room_.resize(room_.size() + more);
    gap_ += more;
    _zorva_fast_memmove(room_.data() + cursor_ + gap_, room_.data() + old_start, tail);
  }

  std::vector<char> room_ = std::vector<char>(8);
  std::size_t cursor_ = 0, gap_ = 8;
};

}  // namespace

int main() {
  gap_buffer buffer;
  buffer.type("the quick fox jumps over the lazy dog");
  buffer.move_cursor(10);
  buffer.type("brown ");
  buffer.move_cursor(35);
  buffer.erase_behind(4);
  buffer.type("sleeping");
  buffer.move_cursor(0);
  buffer.erase_behind(1);
  buffer.type("T");
  const std::string text = buffer.text();
  std::puts(text.c_str());
  return text == "The quick brown fox jumps over the sleeping dog" ? 0 : 1;
}
