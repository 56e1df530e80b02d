// The entry points of the traceback and its small services.
#include <zorvac/diag.h>
#include <zorvac/string.h>

#include <csetjmp>

#include "diag/errno_guard.h"
#include "diag/tbk_backtrace.h"
#include "startup/vrt_msg_support.h"

using namespace zorvac::diag;

namespace {
constexpr std::size_t longest_diagnostic = 100;
char error_msg[longest_diagnostic + 1];  // the last byte stays zero
}  // namespace

extern "C" {

uint32_t tbk_trace_stack(const void* signal_context, void* user, tbk_frame_callback callback,
                         uint32_t skip) {
  return tbk_trace_stack_impl(signal_context, user, callback, skip, frames_of_trace_stack);
}

size_t tbk_string_stack_signal(const void* signal_context, char* buffer, size_t bytes,
                               uint32_t table, uint32_t skip) {
  return tbk_string_stack_signal_impl(signal_context, buffer, bytes, table, skip);
}

// The walk stores only the number. Opening the catalogue allocates, which would wait for ever in a
// process that dies with the heap's lock held.
const char* tbk_geterrorstring() {
  const errno_guard unchanged;
  zorvac_sse2_strncpy(error_msg, __libvrt_get_msg(walk_diagnostic, 0), longest_diagnostic);
  return error_msg;
}

uint64_t tbk_getPC(const tbk_frame* frame) { return frame->pc; }
uint64_t tbk_getRetAddr(const tbk_frame* frame) { return frame->return_address; }
uint64_t tbk_getFramePtr(const tbk_frame*) { return 0; }

jmp_buf tbk__jmp_env;

void tbk_signal_handler(int, void*, void*) { siglongjmp(tbk__jmp_env, -1); }
}
