/* Adds up a column of numbers, in the way in which a compiler's run-time library reads a list of
 * numbers: converts with SSE4.2 if the processor has it, otherwise with the C library. */
#include <stdio.h>
#include <stdlib.h>
#include <zorvac/cpu.h>
#include <zorvac/string.h>

static const char column[] =
    "  1200\n"
    "   -35\n"
    "\t+7 pieces\n"
    "123456789012\n"
    "    -1\n";

static long long of_the_c_library(const char* text) { return strtoll(text, NULL, 10); }

int main(void) {
  __zorva_cpu_features_init();
  const uint64_t needed = ZORVAC_FEATURE_SSSE3 | ZORVAC_FEATURE_SSE4_1 | ZORVAC_FEATURE_SSE4_2;
  const int sse4 = (__zorva_cpu_feature_indicator & needed) == needed;
  long long (*const convert)(const char*) = sse4 ? zorvac_sse4_atoll : of_the_c_library;

  long long sum = 0;
  int lines = 0;
  for (const char* line = column; *line != 0; ++lines) {
    sum += convert(line);
    line = zorvac_sse2_strchr(line, '\n') + 1;
  }
  printf("%d numbers, sum %lld (%s)\n", lines, sum,
         sse4 ? "converted with SSE4.2" : "converted by the C library");
  return 0;
}
