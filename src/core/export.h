#ifndef ZORVAC_CORE_EXPORT_H
#define ZORVAC_CORE_EXPORT_H
// How names are exported. The library is compiled with hidden visibility. The public headers
// declare, with default visibility, the names that C and C++ can spell. The macro below is for the
// others.

// Declares an exported function under a name or with attributes that its public declaration cannot
// have: ZORVAC_EXPORT_AS("__mulq.L", void mulq_l(void*, const void*, const void*)).
#define ZORVAC_EXPORT_AS(symbol, ...) \
  extern "C" __attribute__((visibility("default"))) __VA_ARGS__ __asm__(symbol)

// A routine that preserves every register of its caller, including the scratch registers. The
// attribute makes the compiler save the integer registers. Sources that use it are built for
// general registers only, so they cannot change vector or mask registers.
#define ZORVAC_PRESERVES_REGISTERS __attribute__((no_caller_saved_registers))
#endif
