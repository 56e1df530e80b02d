#ifndef ZORVAC_DIAG_BYTE_SOURCE_H
#define ZORVAC_DIAG_BYTE_SOURCE_H
// Bytes at any offset of a file, or of memory, for the readers of the traceback: through one block
// of its own, without allocation and without the C library's streams, as the process may be about
// to die inside malloc with the heap's lock held.
//
// How often the block may be filled is limited: to its reader, a file made to keep it busy ends
// after 256 MB or a second or two.
#include <cstddef>
#include <cstdint>
#include <span>

namespace zorvac::diag {

class byte_source {
 public:
  // Opening takes the place of whatever is open.
  bool open_file(const char* path);
  void open_memory(std::span<const unsigned char> bytes);
  // Closes the file before it forgets it, and forgets it before anything can go wrong.
  void close();

  // What can be had at `offset` without reading the file again: at least one byte; none at the end,
  // and where the file cannot be read. Valid until the next call.
  [[nodiscard]] std::span<const unsigned char> at(std::uint64_t offset);

  // Exactly `count` bytes, or false.
  [[nodiscard]] bool read(std::uint64_t offset, void* to, std::size_t count);

 private:
  static constexpr std::uint32_t most_fills = 1u << 16;

  bool fill(std::uint64_t offset);

  // All zero when nothing is open, so that static objects take no room on disk.
  int file_ = 0;
  bool is_file_ = false;
  std::uint32_t fills_left_ = 0;
  std::uint64_t block_offset_ = 0;        // of what block_ shows
  std::span<const unsigned char> block_;  // bytes_, or memory
  unsigned char bytes_[4096] = {};
};

}  // namespace zorvac::diag
#endif
