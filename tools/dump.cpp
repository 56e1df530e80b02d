// Prints a section as text. It prints what the section holds even where that makes no sense,
// because authors of compilers debug with it. Bytes of names that are not printable are escaped:
// they could be commands to a terminal.
#include <iomanip>
#include <string_view>

#include "diag/trace_format.h"
#include "encode.h"
#include "failure.h"

namespace zorvac::mktrace {
namespace {

namespace trace = zorvac::diag::trace;

std::string printable(const unsigned char* text, std::size_t length) {
  std::string result;
  for (const unsigned char* at = text; at != text + length; ++at) {
    constexpr std::string_view digits = "0123456789abcdef";
    if (*at >= ' ' && *at != 0x7F && *at != '\\')
      result += static_cast<char>(*at);
    else
      result.append("\\x").append({digits[*at >> 4], digits[*at & 15]});
  }
  return result;
}

class dumper {
 public:
  dumper(const std::vector<unsigned char>& section, std::ostream& out)
      : begin_{section.data()}, size_{section.size()}, out_{out} {}

  void run() {
    for (std::size_t at = 0; at < size_;) {
      const std::uint64_t length = trace::record_bytes(begin_ + at, size_ - at);
      if (length == 0 || length > size_ - at) throw unsound(at);
      if (begin_[at] != trace::padding_tag) record(at, static_cast<std::size_t>(length));
      at += static_cast<std::size_t>(length);
    }
  }

 private:
  static failure unsound(std::size_t at) {
    return failure{"the .trace section is damaged at offset " + std::to_string(at)};
  }

  void record(std::size_t at, std::size_t length) {
    const unsigned char* head = begin_ + at;
    const unsigned version = head[trace::version_offset];
    const auto is = [&](trace::tag tag, unsigned known) {
      return head[0] == tag && version == known;
    };
    out_ << std::hex << std::setfill('0') << std::setw(8) << at << ' ' << std::dec;
    if (is(trace::routine_tag, trace::routine_version))
      routine(head);
    else if (is(trace::file_tag, trace::file_version))
      out_ << "file " << path(at) << '\n';
    else if (is(trace::lines_tag, trace::lines_version))
      lines(at, length);
    else if (is(trace::span_tag, trace::span_version))
      span(at, length);
    else
      out_ << "unknown tag " << unsigned{head[0]} << " version " << version << ", "
           << length - trace::body_offset << " bytes\n";
  }

  void routine(const unsigned char* head) {
    routine_start_ = load_unaligned<std::uint64_t>(head + trace::routine_start_offset);
    range("routine", routine_start_,
          load_unaligned<std::uint32_t>(head + trace::routine_length_offset));
    const auto bytes = load_unaligned<std::uint16_t>(head + trace::routine_name_length_offset);
    out_ << ' ' << printable(head + trace::routine_head_bytes, bytes) << '\n';
  }

  void span(std::size_t at, std::size_t length) {
    if (length < trace::body_offset + trace::span_body_bytes) throw unsound(at);
    const unsigned char* body = begin_ + at + trace::body_offset;
    range("span", load_unaligned<std::uint64_t>(body + trace::span_start_offset),
          load_unaligned<std::uint64_t>(body + trace::span_length_offset));
    out_ << ", " << load_unaligned<std::uint32_t>(body + trace::span_bytes_offset) << " bytes\n";
  }

  void range(const char* kind, std::uint64_t start, std::uint64_t length) {
    out_ << kind << std::hex << " 0x" << start << "+0x" << length << std::dec;
  }

  void lines(std::size_t at, std::size_t length) {
    out_ << "lines, " << length - trace::body_offset << " bytes\n";
    trace::memory_source source = body_of(at);
    trace::line_rows rows{source};
    for (trace::line_row row; rows.next(row);) {
      out_ << "         0x" << std::hex << routine_start_ + row.offset << std::dec << ' ';
      trace::memory_source again = body_of(at);
      std::uint64_t distance = 0;
      if (!trace::file_distance(again, row.file, distance))
        out_ << '?';
      else if (distance <= at)
        out_ << path(at - static_cast<std::size_t>(distance));
      else
        throw unsound(at);
      out_ << ':' << row.line << '\n';
    }
    unsigned char rest = 0;
    if (source.next(rest)) throw unsound(at);
  }

  [[nodiscard]] trace::memory_source body_of(std::size_t at) const {
    const unsigned char* body = begin_ + at + trace::body_offset;
    return {body, body + load_unaligned<std::uint32_t>(body - trace::body_offset +
                                                       trace::body_length_offset)};
  }

  // The path in the file record at a place that something else refers to.
  [[nodiscard]] std::string path(std::size_t at) const {
    const std::uint64_t length = trace::record_bytes(begin_ + at, size_ - at);
    if (begin_[at] != trace::file_tag || length < trace::body_offset || length > size_ - at ||
        begin_[at + trace::version_offset] != trace::file_version)
      throw unsound(at);
    return printable(begin_ + at + trace::body_offset,
                     static_cast<std::size_t>(length) - trace::body_offset);
  }

  const unsigned char* begin_;
  std::size_t size_;
  std::ostream& out_;
  std::uint64_t routine_start_ = 0;
};

}  // namespace

void dump(const std::vector<unsigned char>& section, std::ostream& out) {
  dumper{section, out}.run();
}

}  // namespace zorvac::mktrace
