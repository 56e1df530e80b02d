#ifndef ZORVAC_DIAG_BYTE_SOURCE_H
#define ZORVAC_DIAG_BYTE_SOURCE_H
// Gives the traceback's readers bytes at any offset of a file, or of memory. It reads through a
// block of its own. It allocates nothing and uses no streams of the C library, because the process
// may be dying inside malloc with the heap's lock held.
//
// The number of times that the block is filled is limited. So a file that was made to keep a reader
// busy seems to end after 512 MB, which is a second or two.
#include <cstddef>
#include <cstdint>
#include <span>

namespace zorvac::diag {

class byte_source {
 public:
  // Opening closes whatever is open. Where it fails, errno says why.
  bool open_file(const char* path) { return open(path, sizeof bytes_, sizeof bytes_ / 4); }
  // For a file whose text the kernel makes while it is read. Its reader begins at the start and may
  // need little of it, and the kernel is slow, so the first pieces are small.
  bool open_kernel_file(const char* path) { return open(path, 1024, 0); }
  void open_memory(std::span<const unsigned char> bytes);
  // Forgets the file, and then closes it. A jump out of the walk between the two leaves a
  // descriptor open; the other order could close a descriptor twice.
  void close();

  [[nodiscard]] bool is_file() const { return is_file_; }
  // The descriptor of the file that is open.
  [[nodiscard]] int descriptor() const { return file_; }

  // The bytes from `offset` on, as many as the block holds: at least one, but none at the end of
  // the file and where the file cannot be read. Valid until the next call.
  [[nodiscard]] std::span<const unsigned char> at(std::uint64_t offset) {
    if (offset - block_offset_ >= block_.size() && !fill(offset)) return {};
    return block_.subspan(offset - block_offset_);
  }

  // Reads exactly `count` bytes, or returns false.
  [[nodiscard]] bool read(std::uint64_t offset, void* to, std::size_t count);

 private:
  static constexpr std::uint32_t most_fills = 1u << 16;

  bool open(const char* path, std::size_t bytes, std::size_t bytes_before);
  bool fill(std::uint64_t offset);

  // All zero when nothing is open, so that static objects take no room on disk.
  int file_ = 0;
  bool is_file_ = false;
  // The number of bytes read at a time, and how many of them lie in front of the byte that is
  // needed. Bytes in front are useful because the .trace section, the names of the sections and the
  // section headers lie side by side at the end of a small image.
  std::size_t fill_bytes_ = 0, fill_before_ = 0;
  std::uint32_t fills_left_ = 0;
  std::uint64_t block_offset_ = 0;        // the offset of block_ in the file
  std::span<const unsigned char> block_;  // bytes_, or memory
  unsigned char bytes_[8192] = {};
};

}  // namespace zorvac::diag
#endif
