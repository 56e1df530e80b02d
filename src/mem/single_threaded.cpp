// Where the C library says whether the process has one thread.
//
// The word is younger than the oldest C library that we run with, and the shared library would
// insist on the version of the reference even though it is weak. A name that ends in an at sign
// makes the linker refer to the word without a version.
#include "mem/single_threaded.h"

extern "C" {
[[gnu::weak]] extern char __libc_single_threaded;
}
asm(".symver __libc_single_threaded, __libc_single_threaded@");

const char* const zorvac_single_threaded = &__libc_single_threaded;
