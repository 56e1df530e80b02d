#ifndef ZORVAC_CRASH_REPORT_H
#define ZORVAC_CRASH_REPORT_H
// What a fatal signal has to tell, on standard error.
#include <signal.h>
#include <ucontext.h>

namespace zorvac::crash {

// The signals that are reported: those that faults raise, and that of abort().
inline constexpr int fatal_signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT};
// The kernel sends it to nobody, so that it can tell a report that its time is over.
inline constexpr int time_is_over = SIGSTKFLT;

// Writes the report, one step after the other. Uses static memory only, so one at a time. Called
// with all signals blocked, and returns so. What it changes in the context it puts back.
void report(int number, const siginfo_t& info, ucontext_t& context);

// Called by the handler of a signal that a step has raised, or that ends its time: goes on with the
// next step.
[[noreturn]] void leave_step();

// Writes a text as it is to standard error.
void write_text(const char* text);

}  // namespace zorvac::crash
#endif
