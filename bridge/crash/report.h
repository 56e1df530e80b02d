#ifndef ZORVAC_CRASH_REPORT_H
#define ZORVAC_CRASH_REPORT_H
// The report of a fatal signal, on standard error.
#include <signal.h>
#include <ucontext.h>

namespace zorvac::crash {

// The signals that are reported: those that faults raise, and that of abort().
inline constexpr int fatal_signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT};
// Ends a step of the report whose time is over. The kernel never sends this signal by itself.
inline constexpr int time_is_over = SIGSTKFLT;

// Writes the report, one step after the other. It uses static memory only, so only one report may
// run at a time. All signals are blocked when it is called and when it returns. It restores what it
// changes in the context.
void report(int number, const siginfo_t& info, ucontext_t& context);

// Goes on with the next step. The signal handler calls it if a step has raised a signal or if its
// time is over.
[[noreturn]] void leave_step();

// Writes a text to standard error, without a newline.
void write_text(const char* text);

}  // namespace zorvac::crash
#endif
