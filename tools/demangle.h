#ifndef ZORVAC_TOOLS_DEMANGLE_H
#define ZORVAC_TOOLS_DEMANGLE_H
// Readable names for routines of C++ sources.
#include <string>

namespace zorvac::mktrace {

enum class name_form {
  linker,    // _ZNK5money7accountIdE7balanceERKS0_
  full,      // money::account<double>::balance(money::account<double> const&) const
  component  // balance: the last component, without template arguments and parameters
};

// Converts the linker's name to another form. A name that is not that of a C++ routine stays
// unchanged.
std::string spelled(const std::string& linker_name, name_form form);

}  // namespace zorvac::mktrace
#endif
