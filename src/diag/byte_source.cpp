// Reads a file block by block with pread, so there is no file position that a jump out of the walk
// could leave wrong. The members change in an order that stays right when such a jump comes between
// any two steps.
#include "diag/byte_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zorvac::diag {

bool byte_source::open(const char* path, std::size_t bytes, std::size_t bytes_before) {
  close();
  fill_bytes_ = bytes;
  fill_before_ = bytes_before;
  do {
    file_ = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);  // never waits for a pipe
  } while (file_ < 0 && errno == EINTR);
  is_file_ = file_ >= 0;
  fills_left_ = most_fills;
  return is_file_;
}

void byte_source::open_memory(std::span<const unsigned char> bytes) {
  close();
  block_ = bytes;
}

void byte_source::close() {
  block_offset_ = 0;
  block_ = {};
  if (std::exchange(is_file_, false)) ::close(file_);
}

bool byte_source::fill(std::uint64_t offset) {
  if (!is_file_) return false;  // memory is one block, which is never filled
  block_ = {};
  if (offset > INT64_MAX || fills_left_ == 0) return false;
  --fills_left_;
  const std::uint64_t begin = offset - std::min<std::uint64_t>(offset, fill_before_);
  ssize_t count = 0;
  do {
    count = ::pread(file_, bytes_, fill_bytes_, static_cast<off_t>(begin));
  } while (count < 0 && errno == EINTR);
  fill_bytes_ = std::min(2 * fill_bytes_, sizeof bytes_);
  if (count <= static_cast<ssize_t>(offset - begin)) return false;
  block_offset_ = begin;
  block_ = {bytes_, static_cast<std::size_t>(count)};
  return true;
}

bool byte_source::read(std::uint64_t offset, void* to, std::size_t count) {
  auto* out = static_cast<unsigned char*>(to);
  while (count > 0) {
    const std::span<const unsigned char> bytes = at(offset);
    if (bytes.empty()) return false;
    const std::size_t available = std::min(bytes.size(), count);
    std::memcpy(out, bytes.data(), available);
    out += available;
    count -= available;
    offset += available;  // at() ends below 2^63, so this cannot wrap
  }
  return true;
}

}  // namespace zorvac::diag
