// The end of a dispatch that found no code for the processor.
#include "zorvac/cpu.h"

// The store is in assembler, because a store through a null pointer is undefined in C++. If page
// zero is mapped, the trap ends the process.
extern "C" void __zorva_cpu_dispatch_fail() {
  asm volatile("movl $1, 0" ::: "memory");
  __builtin_trap();
}
