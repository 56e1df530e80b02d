// Writes the traceback as text, in one of two layouts, into the caller's buffer.
//
//   | text so far | the piece that is being written ... | reserved for a closing message and 0 |
//   0           length                                room                            bytes - 1
//
// A piece is written straight into the room, and its length is counted even beyond the room. It is
// part of the text only when it is complete: after a fault the closing message overwrites it.
#include <zorvac/diag.h>

#include <algorithm>

#include "diag/images.h"
#include "diag/tbk_backtrace.h"
#include "diag/texts.h"

namespace zorvac::diag {
namespace {

constexpr char terminated[] = "\nStack trace terminated abnormally.\n";
constexpr char overflow[] = "\nStack trace buffer overflow; further frames not shown.\n";
constexpr std::size_t reserved = std::max(sizeof terminated, sizeof overflow) - 1;

struct output {
  char* text;  // null: nothing is written, only counted
  std::size_t room;
  std::size_t length;
  bool table;
  std::uint32_t frame_number;
  const void* signal_context;  // read only during the walk, where a fault does no harm
  bool interrupted;            // a signal interrupted the next frame
};

class piece {
 public:
  explicit piece(output& out)
      : out_{out},
        at_{out.text == nullptr ? nullptr : out.text + out.length},
        room_{out.text == nullptr ? 0 : out.room - out.length} {}

  piece& put(char c) {
    if (length_ < room_) at_[length_] = c;
    ++length_;
    return *this;
  }
  piece& put(const char* text) {
    while (*text != '\0') put(*text++);
    return *this;
  }
  // Like %-W.Ws: cuts the text to the width, or fills it up with blanks.
  piece& put_column(const char* text, std::size_t width) {
    for (; width > 0 && *text != '\0'; --width) put(*text++);
    for (; width > 0; --width) put(' ');
    return *this;
  }
  // Like %W.Ws: the same with the blanks in front.
  piece& put_right(const char* text, std::size_t width) {
    std::size_t length = 0;
    while (length < width && text[length] != '\0') ++length;
    for (std::size_t blanks = width - length; blanks > 0; --blanks) put(' ');
    return put_column(text, length);
  }
  // Like %16.16lx or %16.16lX.
  piece& put_address(std::uint64_t address, const char* digits) {
    for (int shift = 60; shift >= 0; shift -= 4) put(digits[address >> shift & 15]);
    return *this;
  }
  // Ends the piece. False where it does not fit in the room together with a zero byte: then it is
  // cut, and the room is used up.
  [[nodiscard]] bool finish() {
    if (at_ != nullptr) {
      const bool fits = length_ < room_;
      if (!fits) length_ = room_;
      at_[length_] = '\0';  // in the reserved bytes where the room is used up
      out_.length += length_;
      return fits;
    }
    out_.length += length_;
    return true;
  }

 private:
  output& out_;
  char* const at_;  // null: nothing is written
  const std::size_t room_;
  std::size_t length_ = 0;
};

bool write_header(output& out) {
  piece header(out);
  if (!out.table)
    return header.put("\n\nTraceback symbolic or hex stack dump follows:\n\n").finish();
  return header.put_column("Image", 19)
      .put_column("PC", 18)
      .put_column("Routine", 19)
      .put_column("Line", 12)
      .put_column("Source", 19)
      .put('\n')
      .finish();
}

bool write_block(output& out, const char* image, std::uint64_t pc, const tbk_pc_info& info,
                 const char* line) {
  return piece(out)
      .put("--------- Frame # ")
      .put(decimal(out.frame_number).c_str())
      .put(" ---------------------------------------\n\nImage:         ")
      .put(image)
      .put("\nPC:            0x")
      .put_address(pc, "0123456789abcdef")
      .put("\nRoutine name:  ")
      .put(info.routine)
      .put("\nSource file:   ")
      .put(info.file)
      .put("\nLine number:   ")
      .put(line)
      .put("\n\n")
      .finish();
}

bool write_row(output& out, const char* image, std::uint64_t pc, const tbk_pc_info& info,
               const char* line) {
  return piece(out)
      .put_column(image, 17)
      .put("  ")
      .put_address(pc, "0123456789ABCDEF")
      .put("  ")
      .put_column(info.routine, 17)
      .put("  ")
      .put_right(line, 10)
      .put("  ")
      .put(file_name_of(info.file))
      .put('\n')
      .finish();
}

// The address to look up for a frame. Its program counter is the return address of a call. That may
// be in the next line or, after a call that never returns, in the next routine, so the byte before
// it is looked up, the call's last. Two frames have exact program counters: an interrupted one, and
// the one before it, which is the place that handlers return to.
std::uint64_t place_of(output& out, std::uint64_t pc) {
  const bool signal_return = is_signal_return(pc);
  const bool exact = signal_return || out.interrupted || pc == interrupted_pc(out.signal_context);
  out.interrupted = signal_return;
  return exact ? pc : pc - 1;
}

std::int32_t stackwalk_cb(const tbk_frame* frame, void* user, std::int32_t hidden) {
  // Static, as a signal stack has no room for it.
  static char image[256];
  static tbk_pc_info info;

  output& out = *static_cast<output*>(user);
  const std::uint64_t pc = tbk_getPC(frame), place = place_of(out, pc);
  if (hidden != 0) return TBK_CONTINUE;
  if (out.frame_number == 0 && !write_header(out)) return TBK_STOP_FULL;
  if (pc == 0) return TBK_STOP;
  tbk_getModuleName(pc, image, sizeof image);
  std::uint64_t bias = 0;
  tbk_get_pc_info_pie(image, place, &bias, &info);
  for (char* const name : {image, info.routine, info.file}) hide_commands(name);
  const decimal line(info.line);
  auto* const write = out.table ? write_row : write_block;
  const bool fits =
      write(out, image, pc, info, info.line == 0 ? tbk__default_unknown : line.c_str());
  if (!fits) return TBK_STOP_FULL;
  ++out.frame_number;
  return TBK_CONTINUE;
}

// Writes a closing message into the reserved bytes, or its beginning into a smaller buffer.
void close_with(output& out, const char* message, std::size_t bytes) {
  for (; *message != '\0'; ++message, ++out.length) {
    if (out.text == nullptr || out.length + 1 >= bytes) continue;
    out.text[out.length] = *message;
    out.text[out.length + 1] = '\0';
  }
}

}  // namespace

std::size_t tbk_string_stack_signal_impl(const void* signal_context, char* buffer,
                                         std::size_t bytes, std::uint32_t table,
                                         std::uint32_t skip) {
  char nothing = '\0';
  output out{.text = bytes == 0 && buffer != nullptr ? &nothing : buffer,
             .room = bytes > reserved ? bytes - reserved - 1 : 0,
             .length = 0,
             .table = table != 0,
             .frame_number = 0,
             .signal_context = signal_context,
             .interrupted = false};
  if (out.text != nullptr) *out.text = '\0';
  const std::uint32_t status =
      tbk_trace_stack_impl(signal_context, &out, stackwalk_cb, skip, frames_of_string_stack);
  if (status == TBK_FAULT) close_with(out, terminated, bytes);
  if (status == TBK_BUFFER_FULL) close_with(out, overflow, bytes);
  if (buffer == nullptr) return reserved + out.length + 2;
  return std::min(out.length, bytes);
}

}  // namespace zorvac::diag
