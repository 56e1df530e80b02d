/* Prints what the library detects about the processor. */
#include <cpuid.h>
#include <stdio.h>
#include <string.h>
#include <zorvac/cpu.h>

static void print_word(const char* title, uint64_t word) {
  static const char* const names[] = {
#define NAME(bit, id, name) name,
      ZORVAC_FEATURES(NAME)
#undef NAME
  };
  printf("%-28s 0x%llx", title, (unsigned long long)word);
  int column = 100; /* the first name begins a line */
  for (unsigned bit = 0; bit < sizeof names / sizeof names[0]; ++bit) {
    if ((word >> bit & 1) == 0) continue;
    const int width = (int)strlen(names[bit]) + 1;
    if (column + width > 80) {
      printf("\n   ");
      column = 3;
    }
    printf(" %s", names[bit]);
    column += width;
  }
  printf("\n");
}

int main(void) {
  unsigned words[4] = {0, 0, 0, 0};
  unsigned maximum_leaf = 0;
  __get_cpuid(0, &maximum_leaf, &words[0], &words[2], &words[1]); /* text order: EBX, EDX, ECX */
  printf("%-28s %.12s\n", "vendor", (const char*)words);

  __zorva_cpu_features_init();
  __zorva_cpu_features_init_x();
  __zorva_cpu_indicator_init();
  print_word("features, vendor checked", __zorva_cpu_feature_indicator);
  if (__zorva_cpu_feature_indicator_x == __zorva_cpu_feature_indicator) {
    printf("%-28s the same\n", "features, any vendor");
  } else {
    print_word("features, any vendor", __zorva_cpu_feature_indicator_x);
  }
  printf("%-28s 0x%x\n", "class", __zorva_cpu_indicator);
  for (unsigned level = 1; level <= 3; ++level) {
    const unsigned kb = __cacheSize(level);
    printf("level %u cache                ", level);
    if (kb != 0) {
      printf("%u KB\n", kb);
    } else {
      printf("unknown\n");
    }
  }
  return 0;
}
