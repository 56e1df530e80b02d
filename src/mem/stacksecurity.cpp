// The guard of stack buffers. Compiled code puts the cookie between its buffers and its return
// address on entry, and has the check compare it before it returns.
//
// The check stands between a result and its return, so it changes no register when it returns. The
// public header declares both names; its inline functions need the registers that are off here.
#include <cstdint>

#include "core/export.h"
#include "startup/vrt_msg_support.h"

// Every way in which a string copy ends is in it: NUL, CR, LF and the end-of-file mark. As a string
// it is empty, so that a copied string cannot reproduce it.
extern "C" {
__attribute__((visibility("default"))) std::uint64_t __zorva_security_cookie = 0x0a0dff00;
}

namespace {
// Promises what the check promises, so that the check need not save registers before it knows.
[[noreturn, gnu::noinline, gnu::cold]] ZORVAC_PRESERVES_REGISTERS void report_overrun() {
  __libvrt_print(zorvac::startup::to_standard_error, zorvac::startup::message::buffer_overrun, 0);
  __builtin_abort();
}
}  // namespace

ZORVAC_EXPORT_AS("__zorva_security_check_cookie",
                 ZORVAC_PRESERVES_REGISTERS void security_check_cookie(std::uint64_t found));
void security_check_cookie(std::uint64_t found) {
  if (found != __zorva_security_cookie) report_overrun();
}

// The cookie is set when the library is built.
ZORVAC_EXPORT_AS("__zorva_security_init_cookie", void security_init_cookie());
void security_init_cookie() {}
