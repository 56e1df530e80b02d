#ifndef ZORVAC_DIAG_TRACE_SCAN_H
#define ZORVAC_DIAG_TRACE_SCAN_H
// Looks up an address in a `.trace` section.
#include <zorvac/diag.h>

#include "diag/byte_source.h"
#include "diag/elf_image.h"

namespace zorvac::diag {

// What a section says about an address. Records are given by their offsets in the file, which are
// not 0, because the file's header comes first.
struct trace_place {
  std::uint64_t routine = 0;  // the routine's record; 0: no routine holds the address
  std::uint64_t file = 0;     // the record of the source file's name; 0: not known
  std::uint32_t line = 0;     // 0: not known
};

// The places of the addresses that were looked up last. A deep recursion has the same few addresses
// many times.
class found_places {
 public:
  // Null where the address is not among them.
  [[nodiscard]] const trace_place* find(std::uint64_t address) const {
    for (std::size_t i = 0; i < most && i < added_; ++i)
      if (entries_[i].address == address) return &entries_[i].place;
    return nullptr;
  }
  void add(std::uint64_t address, const trace_place& place) {
    entries_[added_++ % most] = {address, place};
  }

 private:
  static constexpr std::size_t most = 16;
  struct entry {
    std::uint64_t address = 0;
    trace_place place;
  };
  entry entries_[most];
  std::size_t added_ = 0;
};

// Looks up a link-time address. Fills the fields of `info` that the section knows, and leaves the
// others unchanged. `found` belongs to this section.
void scan_trace(byte_source& file, file_range section, std::uint64_t address, found_places& found,
                tbk_pc_info& info);
inline void scan_trace(byte_source& file, file_range section, std::uint64_t address,
                       tbk_pc_info& info) {
  found_places none;
  scan_trace(file, section, address, none, info);
}

}  // namespace zorvac::diag
#endif
