#ifndef ZORVAC_DIAG_TBK_BACKTRACE_H
#define ZORVAC_DIAG_TBK_BACKTRACE_H
// The walker and the formatter behind the entry points. The numbers of frames to hide require that
// each of these routines and each entry point is exactly one frame of the stack. So they are in
// different sources, which prevents inlining, and are compiled without sibling calls
// (cmake/isa.cmake).
//
//   tbk_trace_stack --------------------------------------------> tbk_trace_stack_impl --> unwinder
//   tbk_string_stack_signal --> tbk_string_stack_signal_impl ---> tbk_trace_stack_impl --> unwinder
#include <zorvac/diag.h>

#include <cstddef>
#include <cstdint>

namespace zorvac::diag {

inline constexpr std::uint32_t frames_of_trace_stack = 2;
inline constexpr std::uint32_t frames_of_string_stack = 3;

// With C names, because they appear in tracebacks.
extern "C" {
std::uint32_t tbk_trace_stack_impl(const void* signal_context, void* user,
                                   tbk_frame_callback callback, std::uint32_t skip,
                                   std::uint32_t frames_to_hide);

std::size_t tbk_string_stack_signal_impl(const void* signal_context, char* buffer,
                                         std::size_t bytes, std::uint32_t table,
                                         std::uint32_t skip);
}

// The instruction that a signal interrupted; 0 without its context.
std::uint64_t interrupted_pc(const void* signal_context);

// Whether this is the place that signal handlers return to. The frame after it is that of the
// interrupted routine. Valid during a walk only.
bool is_signal_return(std::uint64_t pc);

// The number of frames that the unwinder has reported so far, in all walks.
extern std::uint32_t frame_count;

// The number of the message about the last walk; 0 before the first.
extern int walk_diagnostic;

}  // namespace zorvac::diag
#endif
