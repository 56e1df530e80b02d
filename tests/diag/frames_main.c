// Runs the chain of frames.c: its own, or that of the shared object named.
//   program block|table [--delete] [shared object]
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <zorvac/diag.h>

#ifdef FRAMES_INSIDE
int outer(uint32_t table);
#endif

int main(int argc, char** argv) {
  const uint32_t table = strcmp(argv[1], "table") == 0;
  const char* image = argc > 2 && argv[argc - 1][0] != '-' ? argv[argc - 1] : NULL;
  int (*chain)(uint32_t) = NULL;
#ifdef FRAMES_INSIDE
  chain = &outer;
#endif
  if (image != NULL) {
    void* object = dlopen(image, RTLD_NOW);
    void* symbol = object != NULL ? dlsym(object, "outer") : NULL;
    memcpy(&chain, &symbol, sizeof chain);
  }
  if (chain == NULL) return 1;
  if (argc > 2 && strcmp(argv[2], "--delete") == 0 && unlink(image != NULL ? image : argv[0]) != 0)
    return 1;
  const int written = chain(table);
  fprintf(stderr, "%d %s\n", written, tbk_geterrorstring());
  return 0;
}
