/* A program that is linked with the whole archive. Its own names are plain words that the library
 * uses inside, too. Its first constructor, which runs after the library's, checks that the library
 * is initialised. */
#include <stdio.h>
#include <zorvac/cpu.h>

int work_pool = 1, headerP = 2, Last_PoolP = 3, last_pool_num = 4, Array_size = 5,
    Array_size_calloc = 6, _i_pool_cr_sec = 7, vrt_msgtab = 8, c_feature_names = 9;

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
  const int sum = work_pool + headerP + Last_PoolP + last_pool_num + Array_size +
                  Array_size_calloc + _i_pool_cr_sec + vrt_msgtab + c_feature_names;
  if (sum != 45) {
    printf("the library changed a variable of the program's: sum 45 expected, %d seen\n", sum);
    return 1;
  }
  return 0;
}
