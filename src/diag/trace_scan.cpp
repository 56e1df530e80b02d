// Makes one pass over the records: from the first one to the routine that holds the address,
// skipping spans that do not hold it, and then on to that routine's line table. Whatever the
// section holds, every step moves forward, and nothing outside the section is read.
#include "diag/trace_scan.h"

#include <algorithm>

#include "diag/texts.h"
#include "diag/trace_format.h"

namespace zorvac::diag {
namespace {

// A record of a section. advance() moves to the next one.
class record {
 public:
  record(byte_source& file, file_range section) : file_{file}, section_{section} { load(); }

  // False after the last record, and where the size of this one cannot be known.
  explicit operator bool() const { return bytes_ != 0; }
  [[nodiscard]] unsigned tag() const { return head_[0]; }
  [[nodiscard]] std::uint64_t place() const { return section_.begin; }
  [[nodiscard]] bool is(trace::tag wanted, unsigned char version) const {
    return head_[0] == wanted && head_[trace::version_offset] == version;
  }
  template <class Integer>
  [[nodiscard]] Integer field(std::size_t offset) const {
    return load_unaligned<Integer>(head_ + offset);
  }
  // The bytes after the head, as far as they lie in the section.
  [[nodiscard]] file_range body(std::size_t head) const {
    return {section_.begin + head, section_.begin + std::min(bytes_, left())};
  }
  template <std::size_t Bytes>
  [[nodiscard]] bool read_body(unsigned char (&to)[Bytes]) {
    const file_range range = body(trace::body_offset);
    return range.end - range.begin >= Bytes && file_.read(range.begin, to, Bytes);
  }
  // Moves past this record and `more` bytes.
  void advance(std::uint64_t more = 0) {
    section_.begin += std::min(bytes_ + more, left());  // both below 2^33
    load();
  }

 private:
  [[nodiscard]] std::uint64_t left() const { return section_.end - section_.begin; }

  void load() {
    skip_padding();
    const std::size_t available = std::min<std::uint64_t>(left(), sizeof head_);
    bytes_ =
        file_.read(section_.begin, head_, available) ? trace::record_bytes(head_, available) : 0;
  }
  void skip_padding() {
    while (left() != 0) {
      const auto bytes = file_.at(section_.begin);
      const std::size_t most = std::min<std::uint64_t>(left(), bytes.size());
      std::size_t count = 0;
      while (count < most && bytes[count] == trace::padding_tag) ++count;
      section_.begin += count;
      if (count == 0 || count < most) return;
    }
  }
  byte_source& file_;
  file_range section_;  // from this record on
  unsigned char head_[trace::head_bytes] = {};
  std::uint64_t bytes_ = 0;
};

// Gives the body of a line table byte by byte. Meanwhile nothing else may read the file.
class body_source {
 public:
  body_source(byte_source& file, file_range body) : file_{file}, body_{body} {}
  bool next(unsigned char& byte) {
    if (bytes_.empty() && !fill()) return false;
    byte = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return true;
  }

 private:
  bool fill() {
    if (body_.empty()) return false;
    bytes_ = file_.at(body_.begin);
    bytes_ = bytes_.first(std::min<std::uint64_t>(bytes_.size(), body_.end - body_.begin));
    body_.begin += bytes_.size();
    return !bytes_.empty();
  }

  byte_source& file_;
  file_range body_;  // what is not yet in bytes_
  std::span<const unsigned char> bytes_;
};

// Reads as much of the text as there is room for; "Unknown" where it cannot be read or is empty.
template <std::size_t Bytes>
void read_text(byte_source& file, file_range range, char (&text)[Bytes]) {
  const std::uint64_t length = range.end - range.begin;
  const std::size_t count = std::min<std::uint64_t>(length, Bytes - 1);
  text[count] = '\0';
  if (!file.read(range.begin, text, count) || text[0] == '\0') put_unknown(text);
}

// The number of bytes after a record that are not about the address: those of a span that does not
// hold it, otherwise 0. The subtraction wraps, so one comparison checks both ends of the range.
std::uint64_t irrelevant_bytes(record& r, std::uint64_t address) {
  unsigned char span[trace::span_body_bytes];
  if (!r.is(trace::span_tag, trace::span_version) || !r.read_body(span)) return 0;
  const auto start = load_unaligned<std::uint64_t>(span + trace::span_start_offset);
  const auto length = load_unaligned<std::uint64_t>(span + trace::span_length_offset);
  if (address - start < length) return 0;
  return load_unaligned<std::uint32_t>(span + trace::span_bytes_offset);
}

// Moves to the routine whose range holds the address; false where there is none.
bool find_routine(record& r, std::uint64_t address) {
  while (r) {
    if (r.tag() == trace::routine_tag) {
      const auto start = r.field<std::uint64_t>(trace::routine_start_offset);
      const auto length = r.field<std::uint32_t>(trace::routine_length_offset);
      if (address - start < length) return true;
    }
    r.advance(irrelevant_bytes(r, address));
  }
  return false;
}

// Moves to the line table of the routine in front of `r`; false where it has none.
bool find_lines(record& r) {
  for (; r && r.tag() != trace::routine_tag; r.advance())
    if (r.is(trace::lines_tag, trace::lines_version)) return true;
  return false;
}

// The last row at or before an offset into the routine. Where the first row is after the offset,
// the result has no line and no file.
trace::line_row find_row(byte_source& file, file_range body, std::uint64_t offset) {
  body_source bytes(file, body);
  trace::line_rows rows(bytes);
  trace::line_row found{.file = UINT64_MAX}, row;
  while (rows.next(row) && row.offset <= offset) found = row;
  return found;
}

// Reads the line and the file of an offset into the routine. `r` is at the line table.
void read_lines(byte_source& file, const record& r, file_range section, std::uint64_t offset,
                trace_place& place) {
  const file_range body = r.body(trace::body_offset);
  const trace::line_row row = find_row(file, body, offset);
  place.line = row.line;
  body_source distances(file, body);
  std::uint64_t distance = 0;
  if (!trace::file_distance(distances, row.file, distance)) return;
  if (distance <= r.place() - section.begin) place.file = r.place() - distance;
}

trace_place find_place(byte_source& file, file_range section, std::uint64_t address) {
  trace_place place;
  record r(file, section);
  if (!find_routine(r, address)) return place;
  place.routine = r.place();
  const std::uint64_t offset = address - r.field<std::uint64_t>(trace::routine_start_offset);
  r.advance();
  if (find_lines(r)) read_lines(file, r, section, offset, place);
  return place;
}

}  // namespace

void scan_trace(byte_source& file, file_range section, std::uint64_t address, found_places& found,
                tbk_pc_info& info) {
  const trace_place* known = found.find(address);
  const trace_place place = known != nullptr ? *known : find_place(file, section, address);
  if (known == nullptr) found.add(address, place);
  info.line = place.line;
  if (place.routine != 0) {
    const record routine(file, {place.routine, section.end});
    read_text(file, routine.body(trace::routine_head_bytes), info.routine);
  }
  if (place.file != 0) {
    const record name(file, {place.file, section.end});
    if (name && name.is(trace::file_tag, trace::file_version))
      read_text(file, name.body(trace::body_offset), info.file);
  }
}

}  // namespace zorvac::diag
