// The kernel's files are read like any other, with limits: the name of a mapped file may hold any
// characters.
#include "diag/process_files.h"

#include <elf.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "diag/texts.h"

namespace zorvac::diag {
namespace {

constexpr std::size_t longest_line = 8192;

// The value of a digit; 16 or more for any other character.
unsigned hex_digit(char c) {
  const auto byte = static_cast<unsigned char>(c);
  const unsigned decimal_digit = byte - unsigned{'0'}, letter = byte - unsigned{'a'};
  return decimal_digit < 10 ? decimal_digit : letter < 6 ? letter + 10 : 16;
}

// Reads a number and moves past it; false where there is none or it exceeds 64 bits.
bool read_hex(const char*& text, std::uint64_t& value) {
  const char* const begin = text;
  value = 0;
  for (unsigned digit = 0; (digit = hex_digit(*text)) < 16; ++text) {
    if (value >> 60 != 0) return false;
    value = value << 4 | digit;
  }
  return text != begin;
}

// The path in the rest of a line: it begins with the first slash and may contain blanks. A mapping
// of no file has no path.
const char* path_in(const char* text) {
  const char* const slash = std::strchr(text, '/');
  return slash == nullptr ? "" : slash;
}

// "begin-end access offset device inode  path"
bool parse_line(const char* text, map_line& line) {
  if (!read_hex(text, line.begin) || *text++ != '-' || !read_hex(text, line.end)) return false;
  if (*text++ != ' ') return false;
  while (*text != ' ' && *text != '\0') ++text;
  if (*text++ != ' ' || !read_hex(text, line.offset)) return false;
  line.path = path_in(text);
  return true;
}

// The argument of PROCMAP_QUERY (linux/fs.h; Linux 6.11 and later), which asks the map's file what
// is mapped at an address. It takes a microsecond, however many mappings there are. The kernel
// takes as long to write one line of the map as text.
struct map_query {
  std::uint64_t size = sizeof(map_query);
  std::uint64_t flags = 0;  // the mapping that holds the address, and no other
  std::uint64_t address = 0;
  std::uint64_t begin = 0, end = 0;
  std::uint64_t access = 0, page_bytes = 0;
  std::uint64_t offset = 0;
  std::uint64_t inode = 0;
  std::uint32_t device_major = 0, device_minor = 0;
  std::uint32_t path_bytes = 0;  // in: the room for the path; out: its size with the zero byte
  std::uint32_t build_id_bytes = 0;
  std::uint64_t path = 0, build_id = 0;
};
static_assert(sizeof(map_query) == 104);
constexpr unsigned long procmap_query = _IOWR('f', 17, map_query);

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
  constexpr char deleted[] = " (deleted)";  // the kernel appends it
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

// The next line without its end, cut where it is too long. Null at the end of the file.
char* map_reader::next_text() {
  static char text[longest_line + 1];  // a signal stack has no room for it
  const std::uint64_t begin = offset_;
  std::size_t length = 0;
  for (bool whole = false; !whole;) {
    const auto bytes = file_.at(offset_);
    if (bytes.empty()) break;
    const void* const end = std::memchr(bytes.data(), '\n', bytes.size());
    whole = end != nullptr;
    const std::size_t ready =
        whole ? static_cast<std::size_t>(static_cast<const unsigned char*>(end) - bytes.data())
              : bytes.size();
    const std::size_t kept = std::min(ready, longest_line - length);
    std::memcpy(text + length, bytes.data(), kept);
    length += kept;
    offset_ += ready + (whole ? 1 : 0);
  }
  text[length] = '\0';
  return offset_ == begin ? nullptr : text;
}

bool map_reader::next(map_line& line) {
  while (const char* const text = next_text())
    if (parse_line(text, line)) return true;
  return false;
}

map_reader::answer map_reader::ask_kernel(std::uint64_t address, map_line& line) const {
  static char path[4096];  // a signal stack has no room for it
  map_query query{.address = address, .path_bytes = sizeof path};
  query.path = reinterpret_cast<std::uintptr_t>(path);
  *path = '\0';
  if (!file_.is_file()) return answer::cannot_tell;
  if (ioctl(file_.descriptor(), procmap_query, &query) != 0)
    return errno == ENOENT ? answer::none : answer::cannot_tell;
  line = {query.begin, query.end, query.offset, path_in(path)};
  return answer::found;
}

bool map_reader::find(std::uint64_t address, map_line& line) {
  if (kernel_answers_) {
    const answer told = ask_kernel(address, line);
    if (told != answer::cannot_tell) return told == answer::found;
    kernel_answers_ = false;
  }
  while (address >= last_.end)
    if (!next(last_)) return false;
  if (!last_.holds(address)) return false;
  line = last_;
  return true;
}

}  // namespace zorvac::diag
