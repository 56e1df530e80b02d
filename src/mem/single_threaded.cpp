// The variable in which the C library says whether the process has only one thread.
//
// The oldest C libraries that we support do not have it. The reference is weak, but the loader
// would still require the version that the reference names. A symbol name that ends in "@" makes
// the linker refer to the variable without a version.
#include "mem/single_threaded.h"

extern "C" {
[[gnu::weak]] extern char __libc_single_threaded;
}
asm(".symver __libc_single_threaded, __libc_single_threaded@");

const char* const zorvac_single_threaded = &__libc_single_threaded;
