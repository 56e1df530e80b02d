#ifndef ZORVAC_DIAG_BYTE_SOURCE_H
#define ZORVAC_DIAG_BYTE_SOURCE_H
// Bytes at any offset of a file, or of memory, for the readers of the traceback: through one block
// of its own, without allocation and without the C library's streams, as the process may be about
// to die inside malloc with the heap's lock held.
//
// How often the block may be filled is limited: to its reader, a file made to keep it busy ends
// after 512 MB or a second or two.
#include <cstddef>
#include <cstdint>
#include <span>

namespace zorvac::diag {

class byte_source {
 public:
  // Opening takes the place of whatever is open. Where it fails, errno says why.
  bool open_file(const char* path) { return open(path, sizeof bytes_, sizeof bytes_ / 4); }
  // For a file that the kernel writes while it is read, which is to be read from its beginning on:
  // first in small pieces, as its reader may need little of it, and the kernel takes its time.
  bool open_kernel_file(const char* path) { return open(path, 1024, 0); }
  void open_memory(std::span<const unsigned char> bytes);
  // Closes the file before it forgets it, and forgets it before anything can go wrong.
  void close();

  [[nodiscard]] bool is_file() const { return is_file_; }
  // Of the file that is open.
  [[nodiscard]] int descriptor() const { return file_; }

  // What can be had at `offset` without reading the file again: at least one byte; none at the end,
  // and where the file cannot be read. Valid until the next call.
  [[nodiscard]] std::span<const unsigned char> at(std::uint64_t offset) {
    if (offset - block_offset_ >= block_.size() && !fill(offset)) return {};
    return block_.subspan(offset - block_offset_);
  }

  // Exactly `count` bytes, or false.
  [[nodiscard]] bool read(std::uint64_t offset, void* to, std::size_t count);

 private:
  static constexpr std::uint32_t most_fills = 1u << 16;

  bool open(const char* path, std::size_t bytes, std::size_t bytes_before);
  bool fill(std::uint64_t offset);

  // All zero when nothing is open, so that static objects take no room on disk.
  int file_ = 0;
  bool is_file_ = false;
  // How much is read at a time, and how much of it is in front of the byte that is needed: the end
  // of a small image has its .trace section, its section headers and their names side by side.
  std::size_t fill_bytes_ = 0, fill_before_ = 0;
  std::uint32_t fills_left_ = 0;
  std::uint64_t block_offset_ = 0;        // of what block_ shows
  std::span<const unsigned char> block_;  // bytes_, or memory
  unsigned char bytes_[8192] = {};
};

}  // namespace zorvac::diag
#endif
