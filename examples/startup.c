/* A program as a compiler emits it for one instruction-set level: main begins with the start-up
 * check of that level, so the rest of the program may use its instructions. */
#include <stdio.h>
#include <zorvac/startup.h>

int main(void) {
  STARTUP_CHECK(ZORVAC_FLUSH_TO_ZERO | ZORVAC_DENORMALS_ARE_ZERO);

  volatile double smallest = 2.2250738585072014e-308;
  puts("built for " LEVEL_NAME ": started");
  printf("smallest normal double / 2 = %g: results this small are flushed to zero\n", smallest / 2);
  return 0;
}
