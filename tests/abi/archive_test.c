/* A static program that is linked with the whole archive. Its first constructor, which runs after
 * the library's, checks that the library is initialised. */
#include <stdio.h>
#include <stdlib.h>
#include <zorvac/cpu.h>

/* Hidden in the shared library. The fourth word says whether the processor's caches are known. */
extern uint32_t __libvrt_cache_tbl[16];

__attribute__((constructor(101))) static void earliest_constructor(void) {
  if (__libvrt_cache_tbl[3] == 1) return;
  puts("a constructor ran before the load-time initialiser");
  exit(1);
}

int main(void) { return 0; }
