#ifndef ZORVAC_DIAG_TRACE_SCAN_H
#define ZORVAC_DIAG_TRACE_SCAN_H
// What a `.trace` section says about an address.
#include <zorvac/diag.h>

#include "diag/byte_source.h"
#include "diag/elf_image.h"

namespace zorvac::diag {

// Where the scans of a section found the routines of the addresses that were looked for last: a
// deep recursion goes through few addresses many times.
class found_routines {
 public:
  // 0 where the address was not looked for lately.
  [[nodiscard]] std::uint64_t place_of(std::uint64_t address) const {
    for (const entry& e : entries_)
      if (e.address == address) return e.place;
    return 0;
  }
  void add(std::uint64_t address, std::uint64_t place) {
    entries_[next_] = {address, place};
    next_ = (next_ + 1) % (sizeof entries_ / sizeof entries_[0]);
  }

 private:
  struct entry {
    std::uint64_t address = 0;
    std::uint64_t place = 0;  // in the file, so behind its header
  };
  entry entries_[16];
  unsigned next_ = 0;
};

// Fills the fields that the section knows for a link-time address, and leaves the others alone.
// `found` belongs to this section.
void scan_trace(byte_source& file, file_range section, std::uint64_t address, found_routines& found,
                tbk_pc_info& info);
inline void scan_trace(byte_source& file, file_range section, std::uint64_t address,
                       tbk_pc_info& info) {
  found_routines none;
  scan_trace(file, section, address, none, info);
}

}  // namespace zorvac::diag
#endif
