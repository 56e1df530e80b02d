// The kernel's texts are read like any other file, byte by byte and bounded: a mapped file's name
// may hold anything.
#include "diag/process_files.h"

#include <elf.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "diag/texts.h"

namespace zorvac::diag {
namespace {

constexpr std::size_t longest_line = 8192;

// The lines of a file, without their ends. Of one that is too long, the first part.
class line_reader {
 public:
  explicit line_reader(byte_source& file) : file_{file} {}

  // Valid until the next call; null at the end.
  char* next() {
    static char line[longest_line + 1];  // a signal stack has no room for it
    std::size_t length = 0;
    for (bool whole = false; !whole;) {
      const auto bytes = file_.at(offset_);
      if (bytes.empty()) break;
      const void* end = std::memchr(bytes.data(), '\n', bytes.size());
      whole = end != nullptr;
      const std::size_t part =
          whole ? static_cast<std::size_t>(static_cast<const unsigned char*>(end) - bytes.data())
                : bytes.size();
      const std::size_t room = longest_line - length;
      const std::size_t kept = part < room ? part : room;
      std::memcpy(line + length, bytes.data(), kept);
      length += kept;
      offset_ += part + (whole ? 1 : 0);
      any_ = true;
    }
    line[length] = '\0';
    return std::exchange(any_, false) ? line : nullptr;
  }

 private:
  byte_source& file_;
  std::uint64_t offset_ = 0;
  bool any_ = false;
};

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Reads a number and moves behind it; false where there is none or it exceeds 64 bits.
bool read_hex(const char*& text, std::uint64_t& value) {
  const char* const begin = text;
  value = 0;
  for (; hex_digit(*text) >= 0; ++text) {
    if (value >> 60 != 0) return false;
    value = value << 4 | static_cast<std::uint64_t>(hex_digit(*text));
  }
  return text != begin;
}

// "begin-end access offset device inode  path": the path begins with the line's first stroke, and
// may have blanks in it.
bool parse_line(const char* line, std::uint64_t& begin, std::uint64_t& end, const char*& path) {
  if (!read_hex(line, begin) || *line++ != '-' || !read_hex(line, end)) return false;
  path = std::strchr(line, '/');
  return path != nullptr;
}

}  // namespace

process_path path_of_process_file(const char* entry) {
  process_path path;
  path.append("/proc/");
  path.append(decimal(static_cast<std::uint64_t>(getpid())).c_str());
  path.append(entry);
  return path;
}

void read_executable_path(char* to, std::size_t bytes) {
  const ssize_t length = readlink(path_of_process_file("/exe").c_str(), to, bytes - 1);
  std::size_t end = length < 0 ? 0 : static_cast<std::size_t>(length);
  constexpr char deleted[] = " (deleted)";  // the kernel's mark
  constexpr std::size_t deleted_length = sizeof deleted - 1;
  if (end > deleted_length && std::memcmp(to + end - deleted_length, deleted, deleted_length) == 0)
    end -= deleted_length;
  to[end] = '\0';
}

bool find_auxiliary_value(byte_source& file, std::uint64_t type, std::uint64_t& value) {
  Elf64_auxv_t entry;
  for (std::uint64_t offset = 0; file.read(offset, &entry, sizeof entry); offset += sizeof entry) {
    if (entry.a_type == AT_NULL) break;
    if (entry.a_type != type) continue;
    value = entry.a_un.a_val;
    return true;
  }
  return false;
}

bool find_mapping(byte_source& file, const char* image, std::uint64_t address, mapping& found) {
  static constinit mapping candidate;  // the file that the last line with the name was about
  bool any = false;
  line_reader lines(file);
  while (const char* line = lines.next()) {
    std::uint64_t begin = 0, end = 0;
    const char* path = nullptr;
    if (!parse_line(line, begin, end, path) || std::strstr(path, image) == nullptr) continue;
    if (!any || std::strcmp(path, candidate.path) != 0) {
      candidate.load_address = begin;
      put_text(path, candidate.path, sizeof candidate.path);
    }
    const bool holds = address >= begin && address < end;
    if (holds || !any) {
      found = candidate;
      found.begin = holds ? begin : 0;
      found.end = holds ? end : UINT64_MAX;
    }
    if (holds) return true;
    any = true;
  }
  return any;
}

}  // namespace zorvac::diag
