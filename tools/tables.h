#ifndef ZORVAC_TOOLS_TABLES_H
#define ZORVAC_TOOLS_TABLES_H
// The contents of a `.trace` section as tables: the routine, source file and line of each address
// of an image.
#include <libelf.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zorvac::mktrace {

// Address ranges and the routines that they belong to. No two ranges overlap. Where two routines
// claim an address (the symbol table contradicts the debug information, or the linker merged two
// routines with the same code), the routine that was added first keeps it.
class routine_map {
 public:
  struct range {
    std::uint64_t end;
    std::string name;
  };
  // Gives the free parts of [start, end) to a routine. A part whose length does not fit in a record
  // becomes several ranges.
  void add(std::uint64_t start, std::uint64_t end, const std::string& name);
  // The start of the first range after `address`, or the highest address.
  [[nodiscard]] std::uint64_t next_start(std::uint64_t address) const;
  [[nodiscard]] const std::map<std::uint64_t, range>& by_start() const { return ranges_; }

 private:
  void take(std::uint64_t start, std::uint64_t end);

  std::map<std::uint64_t, range> ranges_;
  std::map<std::uint64_t, std::uint64_t> taken_;  // start to end; adjacent ranges are one entry
};

// The source position of the code from an address to the next row's.
struct row {
  std::uint64_t address;
  std::size_t file;    // index into the files, or no_file
  std::uint32_t line;  // 0: not known
  bool ends;           // code ends here; code that begins here has a row of its own
};
inline constexpr std::size_t no_file = static_cast<std::size_t>(-1);

struct tables {
  routine_map routines;
  std::vector<row> rows;  // in order of address, at most one for each address
  std::vector<std::string> files;
  std::vector<std::string> notes;  // messages to the user: what is missing, and why
};

// Reads the debug information and the symbol table of an image. Throws failure.
tables read_tables(Elf* elf);

}  // namespace zorvac::mktrace
#endif
