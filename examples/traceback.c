// Crashes three calls deep in a shared object, and prints its traceback from the signal's handler
// in both layouts. The handler calls nothing that allocates: the heap may be what is broken.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>
#include <zorvac/diag.h>

int sum_of_orders(const char* file);  // of the shared object

static void on_fatal(int number, siginfo_t* info, void* context) {
  static char text[65536];
  (void)info;
  for (uint32_t table = 0; table < 2; ++table) {
    const size_t length = tbk_string_stack_signal(context, text, sizeof text, table, 1);
    if (write(STDERR_FILENO, text, length) < 0) break;
  }
  _exit(128 + number);
}

int main(void) {
  // A stack of its own, for programs that fail because theirs is used up.
  static char signal_stack[65536];
  const stack_t stack = {.ss_sp = signal_stack, .ss_size = sizeof signal_stack};
  struct sigaction action = {.sa_flags = SA_SIGINFO | SA_ONSTACK};
  action.sa_sigaction = on_fatal;
  sigaltstack(&stack, NULL);
  sigaction(SIGSEGV, &action, NULL);
  return sum_of_orders("orders.txt");
}
