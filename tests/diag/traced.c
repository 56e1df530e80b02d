// A program whose routines print their own traceback:
//
//   traced IMAGE table|block|delete   three calls deep, in itself or the shared object IMAGE;
//                                     delete: as a table, when the file is gone
//   traced IMAGE die                  from a handler, in malloc with the heap locked
//   traced PC from                    as if a signal had interrupted the code there
//
// Or that shared object, which is also a program's unwinder where it is loaded before all others:
// one that has _Unwind_ForcedUnwind only, and a made-up stack.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>
#include <zorvac/diag.h>

#define ROUTINE __attribute__((noinline)) void

ROUTINE show(const char* how, const ucontext_t* context) {
  static char text[1 << 16];
  const size_t length = tbk_string_stack_signal(context, text, sizeof text, *how != 'b', 1);
  (void)!write(STDOUT_FILENO, text, length);
}
ROUTINE inner(const char* how) { show(how, NULL); }
ROUTINE middle(const char* how) { inner(how); }
ROUTINE outer(const char* how) { middle(how); }

#ifdef traced_object_EXPORTS
struct _Unwind_Context {
  _Unwind_Ptr ip;
};
_Unwind_Ptr _Unwind_GetIP(struct _Unwind_Context* frame) { return frame->ip; }
_Unwind_Ptr _Unwind_GetRegionStart(struct _Unwind_Context* frame) { return frame->ip & 0xf000; }

_Unwind_Reason_Code _Unwind_ForcedUnwind(struct _Unwind_Exception* exception, _Unwind_Stop_Fn stop,
                                         void* argument) {
  static struct _Unwind_Context stack[] = {{0x1010}, {0x2020}, {0x3030}, {0x4040}, {0}, {5}};
  _Unwind_Reason_Code answer = 0;
  for (size_t i = 0; answer == 0 && i < sizeof stack / sizeof *stack; ++i)
    answer = stop(1, 10, 0, exception, &stack[i], argument);
  printf("stop %d\n", answer);
  return answer;
}
#else

// Fails at its first instruction. A label, as assembler code has them.
void crash(void);
__asm__(".section .text.crash, \"ax\", @progbits; .globl crash; crash: ud2; .text");

void* __libc_malloc(size_t bytes);
void* malloc(size_t bytes) {
  static int locked;
  if (locked) _exit(3);  // it would wait for ever
  locked = bytes == 12345;
  if (locked) crash();
  return __libc_malloc(bytes);
}

static void on_fault(int number, siginfo_t* info, void* context) {
  (void)number, (void)info;
  show("table", context);
  _exit(0);
}

int main(int argc, char** argv) {
  const char *image = argv[argc - 2], *how = argv[argc - 1];
  const ucontext_t interrupted = {.uc_mcontext.gregs[REG_RIP] = strtoll(image, NULL, 16)};
  const struct sigaction action = {.sa_sigaction = on_fault, .sa_flags = SA_SIGINFO};
  sigaction(SIGILL, &action, NULL);
  if (strcmp(how, "die") == 0) return malloc(12345) == NULL;
  if (strcmp(how, "from") == 0) {
    show("table", &interrupted);
    return 0;
  }
  void (*chain)(const char*) = outer;
  if (strstr(image, ".so") != NULL) *(void**)&chain = dlsym(dlopen(image, RTLD_NOW), "outer");
  if (strcmp(how, "delete") == 0) unlink(image);
  chain(how);
  return puts(tbk_geterrorstring()) < 0;
}
#endif
