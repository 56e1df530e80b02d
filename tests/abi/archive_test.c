/* A static program that is linked with the whole archive. Its first constructor, which runs after
 * the library's, checks that the library is initialised. */
#include <stdio.h>
#include <zorvac/cpu.h>

/* Hidden in the shared library. The fourth word says whether the processor's caches are known. */
extern uint32_t __libvrt_cache_tbl[16];

static uint32_t computed_in_constructor;
__attribute__((constructor(101))) static void earliest_constructor(void) {
  computed_in_constructor = __libvrt_cache_tbl[3];
}

int main(void) {
  if (computed_in_constructor != 1) {
    puts("a constructor ran before the load-time initialiser");
    return 1;
  }
  return 0;
}
