// Crashes three calls deep in a shared object. The signal handler prints the traceback in both
// layouts: as a table, and as blocks. Without the signal's context the traceback begins
// with the handler; with it, the library's own frames are shown, too. The handler calls nothing
// that allocates, because the heap may be damaged.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>
#include <zorvac/diag.h>

int sum_of_orders(const char* file);  // of the shared object

static void on_fatal(int number, siginfo_t* info, void* context) {
  static char table[65536], blocks[65536];
  (void)info;
  (void)context;
  size_t length = tbk_string_stack_signal(NULL, table, sizeof table, 1, 1);
  if (write(STDERR_FILENO, table, length) > 0) {
    length = tbk_string_stack_signal(NULL, blocks, sizeof blocks, 0, 1);
    if (write(STDERR_FILENO, blocks, length) < 0) _exit(1);
  }
  _exit(128 + number);
}

int main(void) {
  // The handler has its own stack, because the program's stack may have overflowed.
  static char signal_stack[65536];
  const stack_t stack = {.ss_sp = signal_stack, .ss_size = sizeof signal_stack};
  struct sigaction action = {.sa_flags = SA_SIGINFO | SA_ONSTACK};
  action.sa_sigaction = on_fatal;
  sigaltstack(&stack, NULL);
  sigaction(SIGSEGV, &action, NULL);
  return sum_of_orders("orders.txt");
}
