// A program whose only unwinder is its own: _Unwind_ForcedUnwind over a made-up stack. Prints the
// program counters that a walk from the one given as the argument (0: from the first) reports, and
// the same as a table on standard error.
#define _GNU_SOURCE
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <ucontext.h>
#include <zorvac/diag.h>

struct made_up_frame {
  uintptr_t ip, region;
};
static const struct made_up_frame stack[] = {{0x1010, 0x1000}, {0x2020, 0x2000}, {0x3030, 0x3000},
                                             {0x4040, 0x4000}, {0, 0},           {0x5050, 0x5000}};

typedef int stop_function(int version, int actions, uint64_t exception_class, void* exception,
                          void* context, void* argument);
int _Unwind_ForcedUnwind(void* exception, stop_function* stop, void* argument);
uintptr_t _Unwind_GetIP(const struct made_up_frame* frame);
uintptr_t _Unwind_GetRegionStart(const struct made_up_frame* frame);

int _Unwind_ForcedUnwind(void* exception, stop_function* stop, void* argument) {
  for (size_t i = 0; i < sizeof stack / sizeof stack[0]; ++i) {
    const int answer = stop(1, 10, 0, exception, (void*)(uintptr_t)&stack[i], argument);
    if (answer != 0) {
      printf("stop %d\n", answer);
      return answer;
    }
  }
  return 5;
}
uintptr_t _Unwind_GetIP(const struct made_up_frame* frame) { return frame->ip; }
uintptr_t _Unwind_GetRegionStart(const struct made_up_frame* frame) { return frame->region; }

static int32_t print_frame(const tbk_frame* frame, void* user, int32_t hidden) {
  (void)user;
  printf("%lx>%lx %d\n", (unsigned long)frame->pc, (unsigned long)frame->return_address, hidden);
  return TBK_CONTINUE;
}

int main(int argc, char** argv) {
  ucontext_t context = {0};
  context.uc_mcontext.gregs[REG_RIP] = argc > 1 ? strtoll(argv[1], NULL, 16) : 0;
  printf("status %u\n", tbk_trace_stack(&context, NULL, print_frame, 1));
  static char text[4096];
  tbk_string_stack_signal(&context, text, sizeof text, 1, 1);
  fputs(text, stderr);
  return 0;
}
