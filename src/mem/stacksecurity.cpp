// The guard of stack buffers. On entry, compiled code puts the cookie between its buffers and its
// return address. Before it returns, it calls the check, which compares the cookie.
//
// When the check is called, the registers already hold the caller's result, so it changes no
// register. The public header is not included here: its inline functions need vector registers,
// which this source may not use.
#include <cstdint>

#include "core/export.h"
#include "startup/vrt_msg_support.h"

// The value has the bytes that end a copy of a string or a line: NUL, LF, CR and 0xff, the
// end-of-file mark. As a string it is empty, so a copied string cannot reproduce it.
extern "C" {
__attribute__((visibility("default"))) std::uint64_t __zorva_security_cookie = 0x0a0dff00;
}

namespace {
// Has the same register promise as the check, so that the check saves no registers before the
// comparison.
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
