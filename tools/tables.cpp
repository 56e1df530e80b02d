// Reads routines and lines from DWARF, and from the symbol table the routines that DWARF does not
// know: assembler code, start-up files, languages compiled without debug information.
//
// A linker that discards a section leaves what described it pointing to address 0 or 1. So nothing
// counts that does not begin in a section of code.
#include "tables.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <unordered_map>
#include <utility>

#include "failure.h"

namespace zorvac::mktrace {
namespace {

struct address_range {
  std::uint64_t start, end;
};

// The sections of code of an image.
class code_sections {
 public:
  explicit code_sections(Elf* elf) {
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
      GElf_Shdr header;
      if (gelf_getshdr(section, &header) != nullptr && (header.sh_flags & SHF_EXECINSTR) != 0)
        sections_.push_back({header.sh_addr, header.sh_addr + header.sh_size});
    }
  }
  // The part of [start, end) that lies in the section of its start; empty where there is none.
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

// Compilers append to the mangled name of a routine what they have made of it: `.constprop.0`.
std::string without_suffix(const std::string& symbol) {
  return symbol.starts_with("_Z") ? symbol.substr(0, symbol.find('.')) : symbol;
}

// The symbols that name code: all functions, and the global labels of assembler code that does not
// say what they are.
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

// Adds the routines of the symbol table that are not there yet. One without a size goes on to the
// next routine; they are added from the last to the first, so that the next one is known.
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

class dwarf_reader {
 public:
  dwarf_reader(tables& t, const code_sections& code, const std::vector<symbol>& symbols)
      : tables_{t}, code_{code} {
    for (const symbol& s : symbols)
      if (s.name.find('.') == std::string::npos)
        symbol_of_.emplace(std::pair{s.start, s.size}, s.name);
  }

  // False where there is no debug information.
  bool read(Dwarf* dwarf) {
    bool found = false;
    Dwarf_CU* unit = nullptr;
    Dwarf_Die top, split;
    while (dwarf_get_units(dwarf, unit, &unit, nullptr, nullptr, &top, &split) == 0) {
      found = true;
      // Of a unit whose routines are in a file of its own, the lines are here nevertheless.
      Dwarf_Die& routines = split.cu == nullptr ? top : split;
      add_routines(routines);
      add_lines(top);
    }
    return found;
  }

 private:
  // Calls `use` with every range of code of an entry.
  template <class Use>
  void for_each_range(Dwarf_Die& entry, Use use) {
    Dwarf_Addr base = 0, start = 0, end = 0;
    for (std::ptrdiff_t at = 0; (at = dwarf_ranges(&entry, at, &base, &start, &end)) > 0;) {
      const address_range range = code_.clip(start, end);
      if (range.start < range.end) use(range);
    }
  }

  // The name that a linker sees, which is unique, and which tools turn into that of the source. The
  // debug information may lack it, or name what the variants of a C++ constructor have in common;
  // so the symbol table goes before, but for the clones that a compiler makes of a C routine.
  std::string name_of(Dwarf_Die& entry) {
    const char* name = nullptr;
    for_each_range(entry, [&](address_range range) {
      const auto known = symbol_of_.find({range.start, range.end - range.start});
      if (known != symbol_of_.end() && name == nullptr) name = known->second.c_str();
    });
    Dwarf_Attribute attribute;
    for (const unsigned kind : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name})
      if (name == nullptr) name = dwarf_formstring(dwarf_attr_integrate(&entry, kind, &attribute));
    if (name == nullptr) name = dwarf_diename(&entry);
    return name == nullptr ? "" : name;
  }

  // Routines can be inside of anything: namespaces, other routines, classes of a routine.
  void add_routines(Dwarf_Die& parent) {
    Dwarf_Die entry;
    if (dwarf_child(&parent, &entry) != 0) return;
    do {
      if (dwarf_tag(&entry) == DW_TAG_subprogram) {
        const std::string name = name_of(entry);
        for_each_range(entry, [&](address_range range) {
          if (!name.empty()) tables_.routines.add(range.start, range.end, name);
        });
      }
      add_routines(entry);
    } while (dwarf_siblingof(&entry, &entry) == 0);
  }

  // Adds the rows of a unit that are about its own code: in the line table, too, are those of
  // discarded sections.
  void add_lines(Dwarf_Die& unit) {
    Dwarf_Lines* lines = nullptr;
    std::size_t count = 0;
    Dwarf_Attribute attribute;
    const char* folder = dwarf_formstring(dwarf_attr(&unit, DW_AT_comp_dir, &attribute));
    folder_ = folder == nullptr ? "" : folder;
    if (dwarf_getsrclines(&unit, &lines, &count) != 0) return;
    std::vector<address_range> own;
    for_each_range(unit, [&](address_range range) { own.push_back(range); });
    std::sort(own.begin(), own.end(),
              [](address_range a, address_range b) { return a.start < b.start; });
    auto range = own.begin();  // both go up
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
    if (path == last_path_) return last_file_;  // a file of a unit has one text in libdw
    std::string full = *path == '/' || folder_.empty() ? path : folder_ + "/" + path;
    const auto [known, is_new] = file_indices_.try_emplace(full, tables_.files.size());
    if (is_new) tables_.files.push_back(std::move(full));
    last_path_ = path;
    return last_file_ = known->second;
  }

  tables& tables_;
  const code_sections& code_;
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::string> symbol_of_;  // by start and size
  std::unordered_map<std::string, std::size_t> file_indices_;
  std::string folder_;  // that the compiler of the unit ran in
  const char* last_path_ = nullptr;
  std::size_t last_file_ = no_file;
};

// Puts the rows in order and leaves one for each address. Where several rows of a line table have
// one address, the last is about the code there; where code ends, what begins there goes before.
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

void routine_map::add(std::uint64_t start, std::uint64_t end, const std::string& name) {
  constexpr std::uint64_t longest = std::numeric_limits<std::uint32_t>::max();
  while (start < end) {
    const auto next = ranges_.upper_bound(start);
    if (next != ranges_.begin() && std::prev(next)->second.end > start) {
      start = std::prev(next)->second.end;
      continue;
    }
    const std::uint64_t stop = std::min(next_start(start), start + std::min(end - start, longest));
    ranges_.emplace_hint(next, start, range{stop, name});
    start = stop;
  }
}

std::uint64_t routine_map::next_start(std::uint64_t address) const {
  const auto next = ranges_.upper_bound(address);
  return next == ranges_.end() ? std::numeric_limits<std::uint64_t>::max() : next->first;
}

tables read_tables(Elf* elf) {
  tables t;
  const code_sections code{elf};
  const std::vector<symbol> symbols = read_symbols(elf);
  const std::unique_ptr<Dwarf, int (*)(Dwarf*)> dwarf{dwarf_begin_elf(elf, DWARF_C_READ, nullptr),
                                                      dwarf_end};
  if (dwarf == nullptr || !dwarf_reader{t, code, symbols}.read(dwarf.get()))
    throw failure{"no debug information (compile with -g; separate files of it are not read)"};
  add_symbols(t, symbols, code);
  order(t.rows);
  return t;
}

}  // namespace zorvac::mktrace
