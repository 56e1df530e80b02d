#ifndef ZORVAC_TOOLS_ENCODE_H
#define ZORVAC_TOOLS_ENCODE_H
// From tables to a `.trace` section, and from a section to text.
#include <ostream>
#include <vector>

#include "demangle.h"
#include "tables.h"

namespace zorvac::mktrace {

// The section that says what the tables say, with names in one form.
std::vector<unsigned char> encode(const tables& t, name_form form);

// Prints a section, one line for each record and row. Throws failure where it is not sound, with
// all that is in front of that place printed.
void dump(const std::vector<unsigned char>& section, std::ostream& out);

}  // namespace zorvac::mktrace
#endif
