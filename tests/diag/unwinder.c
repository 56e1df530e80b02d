// An unwinder that has _Unwind_ForcedUnwind only, and a made-up stack.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

struct made_up_frame {
  uintptr_t ip, region;
};
typedef int stop_function(int version, int actions, uint64_t exception_class, void* exception,
                          const struct made_up_frame* frame, void* argument);

int _Unwind_ForcedUnwind(void* exception, stop_function* stop, void* argument) {
  static const struct made_up_frame stack[] = {{0x1010, 0x1000}, {0x2020, 0x2000}, {0x3030, 0x3000},
                                               {0x4040, 0x4000}, {0, 0},           {5, 5}};
  int answer = 0;
  for (size_t i = 0; answer == 0 && i < sizeof stack / sizeof *stack; ++i)
    answer = stop(1, 10, 0, exception, &stack[i], argument);
  printf("stop %d\n", answer);
  return answer;
}
uintptr_t _Unwind_GetIP(const struct made_up_frame* frame) { return frame->ip; }
uintptr_t _Unwind_GetRegionStart(const struct made_up_frame* frame) { return frame->region; }
