/* A loop that counts letters, vectorised with four lanes. Each lane has its own counters, which are
   interleaved, so two lanes with the same letter do not wait for each other. The counters begin as
   zeros, the identity of sums. At the end they are folded, lane by lane, into the program's array.

     for (i = 0; i < length; ++i) ++counts[text[i] - 'a']; */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <zorvac/array.h>

enum { letters = 26, lanes = 4 };
enum { sum = 1, uint32_code = 5 }; /* codes of the operator and of the type */

int main(void) {
  static const char text[] = "packmyboxwithfivedozenliquorjugsthentakethelotforajaunt";
  const uint32_t length = sizeof text - 1;
  uint32_t counts[letters] = {0}, in_lanes[letters][lanes], all = 0, i;

  __zorva_reduction_init_array(in_lanes, letters * lanes, sum, uint32_code);
  for (i = 0; i < length; ++i) ++in_lanes[text[i] - 'a'][i % lanes];
  for (i = 0; i < lanes; ++i)
    __zorva_simd_reduction_final_array(counts, &in_lanes[0][i], letters, lanes, 1, sum,
                                       uint32_code);

  for (i = 0; i < letters; ++i) {
    printf("%c%u%s", (char)('a' + i), counts[i], i + 1 < letters ? " " : "\n");
    all += counts[i];
  }
  printf("%u letters\n", all);
  return all == length && counts['t' - 'a'] == 6 ? 0 : 1;
}
