// The end of a dispatch that found no code for the processor.
#include "zorvac/cpu.h"

// The store is in assembler: a compiler that sees a null pointer written may do as it likes. Where
// page zero happens to be mapped the trap still ends the process.
extern "C" void __zorva_cpu_dispatch_fail() {
  asm volatile("movl $1, 0" ::: "memory");
  __builtin_trap();
}
