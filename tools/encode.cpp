// Writes the records of a section. Routines go in order of address, a number of them to a span; a
// file's record stands in front of the first span that refers to it.
#include "encode.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "diag/trace_format.h"
#include "failure.h"

namespace zorvac::mktrace {
namespace {

using bytes = std::vector<unsigned char>;
namespace trace = zorvac::diag::trace;

// Few enough that their records are read at once, many enough that a reader rarely looks at a span.
constexpr std::size_t routines_of_span = 64;

template <class Integer>
void put(bytes& out, Integer value) {
  for (std::size_t i = 0; i < sizeof value; ++i)
    out.push_back(static_cast<unsigned char>(std::uint64_t{value} >> (8 * i)));
}

void put_uleb128(bytes& out, std::uint64_t value) {
  for (; value >= 0x80; value >>= 7) out.push_back(static_cast<unsigned char>(value | 0x80));
  out.push_back(static_cast<unsigned char>(value));
}

void put_sleb128(bytes& out, std::int64_t value) {
  for (; value < -0x40 || value >= 0x40; value >>= 7)
    out.push_back(static_cast<unsigned char>(value | 0x80));
  out.push_back(static_cast<unsigned char>(value & 0x7F));
}

void put_record(bytes& out, trace::tag tag, unsigned char version, const bytes& body) {
  if (body.size() > std::numeric_limits<std::uint32_t>::max())
    throw failure{"too much debug information for one routine"};
  out.push_back(tag);
  out.push_back(version);
  put(out, static_cast<std::uint32_t>(body.size()));
  out.insert(out.end(), body.begin(), body.end());
}

using routine = std::map<std::uint64_t, routine_map::range>::value_type;
using routine_iterator = std::map<std::uint64_t, routine_map::range>::const_iterator;

class encoder {
 public:
  explicit encoder(const tables& t) : tables_{t}, file_at_(t.files.size(), not_written) {}

  bytes section() {
    const auto& routines = tables_.routines.by_start();
    for (auto first = routines.begin(); first != routines.end();) {
      auto last = first;
      for (std::size_t i = 0; i < routines_of_span && last != routines.end(); ++i) ++last;
      put_span(first, last);
      first = last;
    }
    return std::move(out_);
  }

 private:
  static constexpr std::size_t not_written = static_cast<std::size_t>(-1);

  // Files are known by their place in the section before the line tables that refer to them are
  // written, and so is where those tables lie: the span's own record has a fixed size.
  void put_span(routine_iterator first, routine_iterator last) {
    const auto [row_begin, row_end] = rows_of(first->first, std::prev(last)->second.end);
    for (auto r = row_begin; r != row_end; ++r)
      if (r->file != no_file && file_at_[r->file] == not_written) put_file(r->file);
    const std::size_t behind = out_.size() + trace::body_offset + trace::span_body_bytes;
    bytes records;
    for (auto r = first; r != last; ++r) put_routine(records, behind, *r);
    if (records.size() > std::numeric_limits<std::uint32_t>::max())
      throw failure{"too much debug information for one span"};
    bytes body;
    put(body, first->first);
    put(body, std::prev(last)->second.end - first->first);
    put(body, static_cast<std::uint32_t>(records.size()));
    put_record(out_, trace::span_tag, trace::span_version, body);
    out_.insert(out_.end(), records.begin(), records.end());
  }

  void put_file(std::size_t file) {
    const std::string& path = tables_.files[file];
    file_at_[file] = out_.size();
    put_record(out_, trace::file_tag, trace::file_version, bytes(path.begin(), path.end()));
  }

  // `behind` is where in the section `out` begins.
  void put_routine(bytes& out, std::size_t behind, const routine& r) {
    const auto& [start, range] = r;
    const std::size_t name_bytes =
        std::min<std::size_t>(range.name.size(), std::numeric_limits<std::uint16_t>::max());
    out.push_back(trace::routine_tag);
    out.push_back(trace::routine_version);
    put(out, start);
    put(out, static_cast<std::uint32_t>(range.end - start));
    put(out, static_cast<std::uint16_t>(name_bytes));
    out.insert(out.end(), range.name.data(), range.name.data() + name_bytes);
    const bytes lines = line_table(start, range.end, behind + out.size());
    if (!lines.empty()) put_record(out, trace::lines_tag, trace::lines_version, lines);
  }

  // The body of the line record at `place` in the section, for code in [start, end); empty where no
  // line is known.
  bytes line_table(std::uint64_t start, std::uint64_t end, std::size_t place) {
    std::vector<std::size_t> files;
    bytes list, rows;
    trace::line_row before;
    const auto [first, last] = rows_of(start, end);
    for (auto r = first; r != last; ++r) {
      const auto known = std::find(files.begin(), files.end(), r->file);
      trace::line_row now;
      now.offset = std::max(r->address, start) - start;
      now.file = static_cast<std::uint64_t>(known - files.begin());
      now.line = r->line;
      if (known == files.end() && r->file != no_file) {
        files.push_back(r->file);
        put_uleb128(list, place - file_at_[r->file]);
      } else if (r->file == no_file) {
        now.file = std::numeric_limits<std::uint32_t>::max();
      }
      if (now.file == before.file && now.line == before.line) continue;
      put_uleb128(rows, 2 * (now.offset - before.offset) + (now.file != before.file ? 1 : 0));
      if (now.file != before.file) put_uleb128(rows, now.file);
      put_sleb128(rows, std::int64_t{now.line} - std::int64_t{before.line});
      before = now;
    }
    if (files.empty()) return {};
    bytes body;
    put_uleb128(body, files.size());
    body.insert(body.end(), list.begin(), list.end());
    body.insert(body.end(), rows.begin(), rows.end());
    return body;
  }

  // The rows that say something about [start, end): the first may begin before it.
  [[nodiscard]] std::pair<std::vector<row>::const_iterator, std::vector<row>::const_iterator>
  rows_of(std::uint64_t start, std::uint64_t end) const {
    const auto before = [](const row& r, std::uint64_t address) { return r.address < address; };
    auto first = std::lower_bound(tables_.rows.begin(), tables_.rows.end(), start, before);
    const auto last = std::lower_bound(first, tables_.rows.end(), end, before);
    if ((first == last || first->address != start) && first != tables_.rows.begin()) --first;
    return {first, last};
  }

  const tables& tables_;
  std::vector<std::size_t> file_at_;
  bytes out_;
};

}  // namespace

std::vector<unsigned char> encode(const tables& t) { return encoder{t}.section(); }

}  // namespace zorvac::mktrace
