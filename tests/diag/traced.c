// A program, or with the other half alone a shared object, whose routines print their own traceback:
//
//   traced IMAGE table|block|delete   three calls deep, in itself or the shared object IMAGE (*.so);
//                                     delete: as a table, when the file is gone
//   traced IMAGE die                  from a handler, in malloc with the heap locked
//   traced PC walk                    the frames from a program counter on, one by one
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ucontext.h>
#include <unistd.h>
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

#ifdef EXECUTABLE

// Fails at its first instruction. A label, as assembler code has them.
void crash(void);
__asm__(".section .text.crash, \"ax\", @progbits; .globl crash; crash: ud2; .text");

void* __libc_malloc(size_t bytes);
void __libc_free(void* block);
static int locked;

void* malloc(size_t bytes) {
  if (locked) _exit(3);  // it would wait for ever
  locked = bytes == 12345;
  if (locked) crash();
  return __libc_malloc(bytes);
}
void free(void* block) {
  if (locked) _exit(3);
  __libc_free(block);
}

static void on_fault(int number, siginfo_t* info, void* context) {
  (void)number, (void)info;
  show("table", context);
  _exit(0);
}

static int32_t print_frame(const tbk_frame* frame, void* user, int32_t hidden) {
  (void)user;
  printf("%lx>%lx %d\n", (unsigned long)frame->pc, (unsigned long)frame->return_address, hidden);
  return TBK_CONTINUE;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const char *image = argv[1], *how = argv[2];
  if (strcmp(how, "walk") == 0) {
    ucontext_t context = {0};
    context.uc_mcontext.gregs[REG_RIP] = strtoll(argv[1], NULL, 16);
    printf("status %u\n", tbk_trace_stack(&context, NULL, print_frame, 1));
    return 0;
  }
  if (strcmp(how, "die") == 0) {
    const struct sigaction action = {.sa_sigaction = on_fault, .sa_flags = SA_SIGINFO};
    sigaction(SIGILL, &action, NULL);
    void* volatile block = malloc(12345);  // which clang would leave out otherwise
    return block == NULL;
  }
  void (*chain)(const char*) = outer;
  if (strstr(image, ".so") != NULL) *(void**)&chain = dlsym(dlopen(image, RTLD_NOW), "outer");
  if (strcmp(how, "delete") == 0) unlink(image);
  chain(how);
  puts(tbk_geterrorstring());
  return 0;
}
#endif
