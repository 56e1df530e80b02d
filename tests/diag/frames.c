// A chain of routines that prints its own traceback on standard output: part of an executable, or a
// shared object. Standard error gets what it should say of outer, middle and inner: name, load bias,
// start, program counter.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <zorvac/diag.h>

#define OUT_OF_LINE __attribute__((noinline, visibility("default")))
#define KEEP_FRAME __asm__ volatile("" ::: "memory")

int outer(uint32_t table);
int middle(uint32_t table);
int inner(uint32_t table);
int show(uint32_t table);

static void expect(const char* name, const void* start, const void* pc) {
  Dl_info info;
  struct link_map* map = NULL;
  dladdr1(start, &info, (void**)&map, RTLD_DL_LINKMAP);
  fprintf(stderr, "%s %lx %lx %lx\n", name, (unsigned long)map->l_addr, (unsigned long)start,
          (unsigned long)pc);
}

OUT_OF_LINE int show(uint32_t table) {
  static char text[1 << 16];
  expect("inner", (const void*)&inner, __builtin_return_address(0));
  const int written = (int)tbk_string_stack_signal(NULL, text, sizeof text, table, 1);
  fwrite(text, 1, (size_t)written, stdout);
  return written;
}

OUT_OF_LINE int inner(uint32_t table) {
  expect("middle", (const void*)&middle, __builtin_return_address(0));
  const int written = show(table);
  KEEP_FRAME;
  return written;
}

OUT_OF_LINE int middle(uint32_t table) {
  expect("outer", (const void*)&outer, __builtin_return_address(0));
  const int written = inner(table);
  KEEP_FRAME;
  return written;
}

OUT_OF_LINE int outer(uint32_t table) {
  const int written = middle(table);
  KEEP_FRAME;
  return written;
}
