/* Block operations as a compiler emits them: calls of the library's entry points. The program
   replaces the variants by its own functions, which store their name and pass the call on. So it
   can print which variants ran on this processor. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <zorvac/mem.h>

static const char* taken;

/* The library's own definition, which comes after this program's in the search order. */
static void* next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == NULL) fprintf(stderr, "%s is missing\n", name);
  return found;
}

/* The last declaration makes the semicolon after VARIANT() valid. */
#define VARIANT(identifier, symbol, source_type)                              \
  void* identifier(void* to, source_type from, size_t count) __asm__(symbol); \
  void* identifier(void* to, source_type from, size_t count) {                \
    void* (*function)(void*, source_type, size_t);                            \
    *(void**)&function = next(symbol);                                        \
    taken = symbol;                                                           \
    return function(to, from, count);                                         \
  }                                                                           \
  void* identifier(void* to, source_type from, size_t count)
#define COPY(letter) VARIANT(memcpy_##letter, "_zorva_fast_memcpy." #letter, const void*)
#define MOVE(letter) VARIANT(memmove_##letter, "_zorva_fast_memmove." #letter, const void*)
#define FILL(letter) VARIANT(memset_##letter, "_zorva_fast_memset." #letter, int)
COPY(Z);
COPY(V);
COPY(P);
COPY(M);
COPY(J);
COPY(A);
MOVE(P);
MOVE(M);
MOVE(A);
FILL(Z);
FILL(V);
FILL(J);
FILL(A);

/* Prints one line and returns whether the bytes are as expected. */
static int report(const char* operation, const char* bytes, const char* expected) {
  const int right = _zorva_fast_memcmp(bytes, expected, strlen(expected) + 1) == 0;
  printf("%-5s by %-22s  \"%s\"%s\n", operation, taken, bytes, right ? "" : "  WRONG");
  return right;
}

int main(void) {
  char text[32] = "", line[16] = "";
  int right = 1;
  _zorva_fast_memcpy(text, "the quick brown fox", 20);
  right &= report("copy", text, "the quick brown fox");
  _zorva_fast_memmove(text + 4, text + 10, 10);
  right &= report("move", text, "the brown fox");
  _zorva_fast_memset(line, '=', 13);
  right &= report("fill", line, "=============");
  return right ? 0 : 1;
}
