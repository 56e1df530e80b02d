#ifndef ZORVAC_DIAG_TRACE_SCAN_H
#define ZORVAC_DIAG_TRACE_SCAN_H
// What a `.trace` section says about an address.
#include <zorvac/diag.h>

#include "diag/byte_source.h"
#include "diag/elf_image.h"

namespace zorvac::diag {

// Fills the fields that the section knows for a link-time address, and leaves the others alone.
void scan_trace(byte_source& file, file_range section, std::uint64_t address, tbk_pc_info& info);

}  // namespace zorvac::diag
#endif
