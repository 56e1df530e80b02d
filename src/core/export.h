#ifndef ZORVAC_CORE_EXPORT_H
#define ZORVAC_CORE_EXPORT_H
// How exported names are made. The library is compiled with hidden visibility. The public headers
// declare with default visibility what C and C++ can spell; the macro below is for the rest.

// Declares an exported function under a name or with attributes that its public declaration cannot
// have: ZORVAC_EXPORT_AS("__mulq.L", void mulq_l(void*, const void*, const void*)).
#define ZORVAC_EXPORT_AS(symbol, ...) \
  extern "C" __attribute__((visibility("default"))) __VA_ARGS__ __asm__(symbol)

// A routine that preserves every register of its caller, the scratch registers included. The
// compiler keeps the promise for the integer registers; sources that use this are built for general
// registers only, which keeps it for the vector and mask registers.
#define ZORVAC_PRESERVES_REGISTERS __attribute__((no_caller_saved_registers))
#endif
