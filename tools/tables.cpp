// Reads routines and lines from DWARF. Routines that DWARF does not have (assembler code, start-up
// files, sources compiled without debug information) come from the symbol table.
//
// When a linker discards a section, the section's debug information stays, with addresses from 0 or
// 1 on. So anything that does not begin in a section of code is ignored.
#include "tables.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "failure.h"

namespace zorvac::mktrace {
namespace {

constexpr char no_debug_information[] =
    "no debug information (compile with -g; separate debug files are not read)";

struct address_range {
  std::uint64_t start, end;
};

// The sections of an image that hold code.
class code_sections {
 public:
  explicit code_sections(Elf* elf) {
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
      GElf_Shdr header;
      if (gelf_getshdr(section, &header) != nullptr && (header.sh_flags & SHF_EXECINSTR) != 0)
        sections_.push_back({header.sh_addr, header.sh_addr + header.sh_size});
    }
  }
  // The part of [start, end) that lies in the section that holds `start`; empty if none holds it.
  [[nodiscard]] address_range clip(std::uint64_t start, std::uint64_t end) const {
    for (const address_range& section : sections_)
      if (section.start <= start && start < section.end) return {start, std::min(end, section.end)};
    return {start, start};
  }

 private:
  std::vector<address_range> sections_;
};

struct symbol {
  std::uint64_t start, size;
  std::string name;
};

// Removes what compilers append to the mangled name of a clone, as in `.constprop.0`.
std::string without_suffix(const std::string& symbol) {
  return symbol.starts_with("_Z") ? symbol.substr(0, symbol.find('.')) : symbol;
}

// The symbols that name code: all functions, and global labels without a type, as assembler code
// has them.
std::vector<symbol> read_symbols(Elf* elf) {
  Elf_Scn* table = nullptr;
  GElf_Shdr header;
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    if (gelf_getshdr(section, &header) == nullptr) continue;
    if (header.sh_type == SHT_SYMTAB || (header.sh_type == SHT_DYNSYM && table == nullptr))
      table = section;
  }
  std::vector<symbol> symbols;
  Elf_Data* data = elf_getdata(table, nullptr);
  if (data == nullptr || gelf_getshdr(table, &header) == nullptr) return symbols;
  GElf_Sym entry;
  for (int i = 0; gelf_getsym(data, i, &entry) != nullptr; ++i) {
    const int type = GELF_ST_TYPE(entry.st_info);
    const bool function = type == STT_FUNC || type == STT_GNU_IFUNC;
    const bool label = type == STT_NOTYPE && GELF_ST_BIND(entry.st_info) != STB_LOCAL;
    const char* name = elf_strptr(elf, header.sh_link, entry.st_name);
    if ((function || label) && entry.st_shndx != SHN_UNDEF && name != nullptr && *name != '\0')
      symbols.push_back({entry.st_value, entry.st_size, without_suffix(name)});
  }
  return symbols;
}

// Adds the routines of the symbol table that are missing. A routine without a size extends to the
// next routine; these are added from the last to the first, so that the next one is known.
void add_symbols(tables& t, std::vector<symbol> symbols, const code_sections& code) {
  for (const symbol& s : symbols) {
    const address_range range = code.clip(s.start, s.start + s.size);
    t.routines.add(range.start, range.end, s.name);
  }
  std::stable_sort(symbols.begin(), symbols.end(),
                   [](const symbol& a, const symbol& b) { return a.start > b.start; });
  for (const symbol& s : symbols) {
    if (s.size != 0) continue;
    const address_range range = code.clip(s.start, t.routines.next_start(s.start));
    t.routines.add(range.start, range.end, s.name);
  }
}

// Decompresses the sections of debug information. If libdw cannot decompress one itself, it reads
// nothing from it and reports no error.
void expand_sections(Elf* elf) {
  std::size_t names = 0;
  elf_getshdrstrndx(elf, &names);
  GElf_Shdr header;
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    if (gelf_getshdr(section, &header) == nullptr || (header.sh_flags & SHF_COMPRESSED) == 0)
      continue;
    const char* name = elf_strptr(elf, names, header.sh_name);
    if (name != nullptr && std::string_view{name}.starts_with(".debug") &&
        elf_compress(section, 0, 0) < 0)
      throw failure{"cannot decompress " + std::string{name} + ": " + elf_errmsg(-1)};
  }
}

// Goes through all entries of a unit, at any depth, in the order of the file. It never asks libdw
// for the sibling of an entry with children: that would read all of them again. Instead it
// continues from the last child, because the sibling of its parent follows it in the file.
class entry_walk {
 public:
  explicit entry_walk(const Dwarf_Die& unit) : entry_{unit} {}

  [[nodiscard]] Dwarf_Die& entry() { return entry_; }
  // False after the last one, and where the next one cannot be found.
  bool next() {
    Dwarf_Die following;
    if (dwarf_child(&entry_, &following) == 0) {
      ++depth_;
    } else {
      const int status = depth_ == 0 ? 1 : dwarf_siblingof(&entry_, &following);
      is_sound_ = status >= 0;
      if (!is_sound_ || (status == 1 && !climb(following))) return false;
    }
    entry_ = following;
    return true;
  }
  [[nodiscard]] bool is_sound() const { return is_sound_; }

 private:
  // `place` is after the last child of an entry. Each list of children ends with a null entry of
  // one byte. Moves `place` past those null entries to the next entry.
  bool climb(Dwarf_Die& place) {
    Dwarf* const dwarf = dwarf_cu_getdwarf(entry_.cu);
    for (auto* at = static_cast<unsigned char*>(place.addr); depth_ > 0; --depth_, ++at) {
      if (dwarf_die_addr_die(dwarf, at, &place) == nullptr || place.cu != entry_.cu) return false;
      if (*at != 0) return true;
    }
    return false;
  }

  Dwarf_Die entry_;
  std::size_t depth_ = 0;
  bool is_sound_ = true;
};

class dwarf_reader {
 public:
  dwarf_reader(tables& t, const code_sections& code, const std::vector<symbol>& symbols)
      : tables_{t}, code_{code} {
    for (const symbol& s : symbols)
      if (s.name.find('.') == std::string::npos)
        symbol_of_.emplace(std::pair{s.start, s.size}, s.name);
  }

  void read(Dwarf* dwarf) {
    bool found = false;
    Dwarf_CU* unit = nullptr;
    Dwarf_Die top, split;
    std::uint8_t type = 0;
    int status = 0;
    while ((status = dwarf_get_units(dwarf, unit, &unit, nullptr, &type, &top, &split)) == 0) {
      found = true;
      // Even if the routines of a unit are in a separate file, its lines are in this one.
      add_routines(split.cu == nullptr ? top : split);
      add_lines(top);
      if (type == DW_UT_skeleton && split.cu == nullptr) add_missing(top);
    }
    const int error = status < 0 ? dwarf_errno() : error_;
    if (!found && error == 0) throw failure{no_debug_information};
    if (!found)
      throw failure{std::string{"cannot read the debug information: "} + dwarf_errmsg(error)};
    if (error != 0)
      tables_.notes.push_back(std::string{"cannot read all of the debug information: "} +
                              dwarf_errmsg(error));
    if (missing_ != 0) note_missing();
  }

 private:
  [[nodiscard]] std::vector<address_range> ranges_of(Dwarf_Die& entry) const {
    std::vector<address_range> ranges;
    Dwarf_Addr base = 0, start = 0, end = 0;
    for (std::ptrdiff_t at = 0; (at = dwarf_ranges(&entry, at, &base, &start, &end)) > 0;) {
      const address_range range = code_.clip(start, end);
      if (range.start < range.end) ranges.push_back(range);
    }
    return ranges;
  }

  // The linker's name, which is unique, and which tools can convert to the name in the source. The
  // debug information may lack it, or have one name for all variants of a C++ constructor. So the
  // symbol table is used first, except for the clones that a compiler makes of a C routine.
  std::string name_of(Dwarf_Die& entry, const std::vector<address_range>& ranges) const {
    for (const address_range range : ranges) {
      const auto known = symbol_of_.find({range.start, range.end - range.start});
      if (known != symbol_of_.end()) return known->second;
    }
    const char* name = nullptr;
    Dwarf_Attribute attribute;
    for (const unsigned kind : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name})
      if (name == nullptr) name = dwarf_formstring(dwarf_attr_integrate(&entry, kind, &attribute));
    if (name == nullptr) name = dwarf_diename(&entry);
    return name == nullptr ? "" : name;
  }

  // Routines can be inside anything: namespaces, other routines, classes of a routine.
  void add_routines(const Dwarf_Die& unit) {
    entry_walk walk{unit};
    while (walk.next()) {
      if (dwarf_tag(&walk.entry()) != DW_TAG_subprogram) continue;
      const std::vector<address_range> ranges = ranges_of(walk.entry());
      if (ranges.empty()) continue;  // only declared, or inlined everywhere
      const std::string name = name_of(walk.entry(), ranges);
      if (name.empty()) continue;
      for (const address_range range : ranges) tables_.routines.add(range.start, range.end, name);
    }
    if (!walk.is_sound()) error_ = dwarf_errno();
  }

  // Adds the rows of a unit that are about its own code. The line table also has rows of discarded
  // sections.
  void add_lines(Dwarf_Die& unit) {
    Dwarf_Lines* lines = nullptr;
    std::size_t count = 0;
    folder_ = text_of(unit, DW_AT_comp_dir);
    if (dwarf_getsrclines(&unit, &lines, &count) != 0) return;
    std::vector<address_range> own = ranges_of(unit);
    std::sort(own.begin(), own.end(),
              [](address_range a, address_range b) { return a.start < b.start; });
    auto range = own.begin();  // the ranges and the rows are in ascending order
    for (std::size_t i = 0; i < count; ++i) {
      Dwarf_Line* line = dwarf_onesrcline(lines, i);
      Dwarf_Addr address = 0;
      int number = 0;
      bool ends = false;
      if (dwarf_lineaddr(line, &address) != 0 || dwarf_lineno(line, &number) != 0 ||
          dwarf_lineendsequence(line, &ends) != 0)
        continue;
      while (range != own.end() && (ends ? range->end < address : range->end <= address)) ++range;
      if (range == own.end()) return;
      if (address < range->start) continue;
      if (ends)
        tables_.rows.push_back({address, no_file, 0, true});
      else
        tables_.rows.push_back({address, file_of(line), static_cast<std::uint32_t>(number), false});
    }
  }

  std::size_t file_of(Dwarf_Line* line) {
    const char* path = dwarf_linesrc(line, nullptr, nullptr);
    if (path == nullptr) return no_file;
    if (path == last_path_) return last_file_;  // libdw has one string for each file of a unit
    std::string full = joined(folder_, path);
    const auto [known, is_new] = file_indices_.try_emplace(full, tables_.files.size());
    if (is_new) tables_.files.push_back(std::move(full));
    last_path_ = path;
    return last_file_ = known->second;
  }

  static std::string text_of(Dwarf_Die& entry, unsigned kind) {
    Dwarf_Attribute attribute;
    const char* text = dwarf_formstring(dwarf_attr(&entry, kind, &attribute));
    return text == nullptr ? "" : text;
  }

  static std::string joined(const std::string& folder, const std::string& path) {
    return path.starts_with('/') || folder.empty() ? path : folder + "/" + path;
  }

  // Notes a unit whose routines are in a file that cannot be read.
  void add_missing(Dwarf_Die& unit) {
    std::string name = text_of(unit, DW_AT_dwo_name);
    if (name.empty()) name = text_of(unit, DW_AT_GNU_dwo_name);
    if (missing_++ == 0) first_missing_ = joined(text_of(unit, DW_AT_comp_dir), name);
  }

  void note_missing() {
    const std::string others =
        missing_ == 1 ? ": its" : " and " + std::to_string(missing_ - 1) + " more: their";
    tables_.notes.push_back("cannot read " + first_missing_ + others +
                            " routines are taken from the symbol table");
  }

  tables& tables_;
  const code_sections& code_;
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::string> symbol_of_;  // by start and size
  std::unordered_map<std::string, std::size_t> file_indices_;
  std::string folder_;  // in which the compiler of the unit ran
  const char* last_path_ = nullptr;
  std::size_t last_file_ = no_file;
  std::size_t missing_ = 0;    // units whose routines are in a file that cannot be read
  std::string first_missing_;  // the first of these files
  int error_ = 0;              // of a unit that cannot be read to its end
};

// Sorts the rows and keeps one for each address. Where a line table has several rows for an
// address, the last one describes the code there. A row for code that begins at an address is
// preferred to one for code that ends there.
void order(std::vector<row>& rows) {
  std::stable_sort(rows.begin(), rows.end(), [](const row& a, const row& b) {
    return a.address != b.address ? a.address < b.address : a.ends && !b.ends;
  });
  std::size_t kept = 0;
  for (const row& r : rows) {
    if (kept > 0 && rows[kept - 1].address == r.address) --kept;
    rows[kept++] = r;
  }
  rows.resize(kept);
}

}  // namespace

// Each step either fills a gap or skips everything taken up to the next gap, so many overlapping
// ranges cost no more than others.
void routine_map::add(std::uint64_t start, std::uint64_t end, const std::string& name) {
  constexpr std::uint64_t longest = std::numeric_limits<std::uint32_t>::max();
  while (start < end) {
    const auto next = taken_.upper_bound(start);
    if (next != taken_.begin() && std::prev(next)->second > start) {
      start = std::prev(next)->second;
      continue;
    }
    const std::uint64_t gap_end = next == taken_.end() ? end : std::min(next->first, end);
    const std::uint64_t stop = start + std::min(gap_end - start, longest);
    ranges_.emplace(start, range{stop, name});
    take(start, stop);
    start = stop;
  }
}

void routine_map::take(std::uint64_t start, std::uint64_t end) {
  const auto next = taken_.lower_bound(end);
  if (next != taken_.end() && next->first == end) {
    end = next->second;
    taken_.erase(next);
  }
  const auto before = taken_.lower_bound(start);
  if (before != taken_.begin() && std::prev(before)->second == start)
    std::prev(before)->second = end;
  else
    taken_.emplace(start, end);
}

std::uint64_t routine_map::next_start(std::uint64_t address) const {
  const auto next = ranges_.upper_bound(address);
  return next == ranges_.end() ? std::numeric_limits<std::uint64_t>::max() : next->first;
}

tables read_tables(Elf* elf) {
  tables t;
  const code_sections code{elf};
  const std::vector<symbol> symbols = read_symbols(elf);
  expand_sections(elf);
  const std::unique_ptr<Dwarf, int (*)(Dwarf*)> dwarf{dwarf_begin_elf(elf, DWARF_C_READ, nullptr),
                                                      dwarf_end};
  if (dwarf == nullptr) throw failure{no_debug_information};
  dwarf_reader{t, code, symbols}.read(dwarf.get());
  add_symbols(t, symbols, code);
  order(t.rows);
  return t;
}

}  // namespace zorvac::mktrace
