#ifndef ZORVAC_TOOLS_ENCODE_H
#define ZORVAC_TOOLS_ENCODE_H
// Converts tables to a `.trace` section, and a section to text.
#include <ostream>
#include <vector>

#include "demangle.h"
#include "tables.h"

namespace zorvac::mktrace {

// Makes the section with the contents of the tables and the names in one form.
std::vector<unsigned char> encode(const tables& t, name_form form);

// Prints a section, one line for each record and row. Where the section is damaged, it throws a
// failure, after it has printed all that is before that place.
void dump(const std::vector<unsigned char>& section, std::ostream& out);

}  // namespace zorvac::mktrace
#endif
