// A program with an allocator of its own that fails with its lock held, and prints its traceback
// from the signal's handler. Whoever asks the allocator for anything then would wait for ever.
#define _GNU_SOURCE
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <ucontext.h>
#include <unistd.h>
#include <zorvac/diag.h>

static _Alignas(16) char arena[1 << 24];
static size_t used;
static volatile int locked;
static int* volatile nowhere;

static void* take(size_t bytes) {
  if (locked) {
    (void)!write(STDOUT_FILENO, "waiting for the lock\n", 21);
    _exit(3);
  }
  locked = 1;
  if (bytes == 12345) *nowhere = 1;
  size_t* const block = (size_t*)(void*)(arena + used);
  used += (bytes + 31) / 16 * 16;
  *block = bytes;
  locked = 0;
  return block + 2;
}
void* malloc(size_t bytes) { return take(bytes); }
void free(void* block) {
  if (locked) take(0);
  (void)block;
}
void* calloc(size_t count, size_t bytes) { return take(count * bytes); }
void* realloc(void* old, size_t bytes) {
  void* const block = take(bytes);
  if (old != NULL) memcpy(block, old, bytes < ((size_t*)old)[-2] ? bytes : ((size_t*)old)[-2]);
  return block;
}

static void on_fault(int number, siginfo_t* info, void* context) {
  static char text[1 << 16], pc[32];
  (void)number, (void)info;
  const size_t length = (size_t)tbk_string_stack_signal(context, text, sizeof text, 0, 1);
  (void)!write(STDOUT_FILENO, text, length);
  const greg_t rip = ((const ucontext_t*)context)->uc_mcontext.gregs[REG_RIP];
  (void)!write(STDERR_FILENO, pc, (size_t)snprintf(pc, sizeof pc, "0x%016llx", rip));
  _exit(0);
}

int main(void) {
  const struct sigaction action = {.sa_sigaction = on_fault, .sa_flags = SA_SIGINFO};
  sigaction(SIGSEGV, &action, NULL);
  void* volatile block = malloc(12345);
  return block == NULL;
}
