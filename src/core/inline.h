#ifndef ZORVAC_CORE_INLINE_H
#define ZORVAC_CORE_INLINE_H
// For code that must be part of its caller: because it may use instructions that the caller alone
// has been compiled for, because the caller preserves registers, or because arrays of vectors are
// to stay in registers.
#define ZORVAC_INLINE [[gnu::always_inline]] inline
#define ZORVAC_INLINE_LAMBDA __attribute__((always_inline))
#endif
