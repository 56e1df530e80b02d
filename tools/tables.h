#ifndef ZORVAC_TOOLS_TABLES_H
#define ZORVAC_TOOLS_TABLES_H
// What a `.trace` section says, as tables: which routine, source file and line each address of an
// image belongs to.
#include <libelf.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zorvac::mktrace {

// Address ranges and the routines that they belong to. No two overlap: where sources of knowledge
// contradict each other, or code that is the same has been folded, what was added first stands.
class routine_map {
 public:
  struct range {
    std::uint64_t end;
    std::string name;
  };
  // Gives [start, end), where it is still free, to a routine. What is longer than a record can say
  // becomes several ranges.
  void add(std::uint64_t start, std::uint64_t end, const std::string& name);
  // The start of the first range behind `address`, or the highest address.
  [[nodiscard]] std::uint64_t next_start(std::uint64_t address) const;
  [[nodiscard]] const std::map<std::uint64_t, range>& by_start() const { return ranges_; }

 private:
  void take(std::uint64_t start, std::uint64_t end);

  std::map<std::uint64_t, range> ranges_;
  std::map<std::uint64_t, std::uint64_t> taken_;  // from start to end: the ranges that touch as one
};

// The source position of the code from an address to the next row's.
struct row {
  std::uint64_t address;
  std::size_t file;    // index into the files, or no_file
  std::uint32_t line;  // or 0
  bool ends;           // code ends here, and what begins here has a row of its own, if any
};
inline constexpr std::size_t no_file = static_cast<std::size_t>(-1);

struct tables {
  routine_map routines;
  std::vector<row> rows;  // in order of address, one for each
  std::vector<std::string> files;
  std::vector<std::string> notes;  // to the user: what is missing, and why
};

// Reads the debug information and the symbol table of an image. Throws failure.
tables read_tables(Elf* elf);

}  // namespace zorvac::mktrace
#endif
