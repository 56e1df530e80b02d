#ifndef ZORVAC_MEM_SINGLE_THREADED_H
#define ZORVAC_MEM_SINGLE_THREADED_H
// Whether the process has only one thread, so that a counter needs no locked instruction.

// The address of the C library's __libc_single_threaded; null before glibc 2.32.
extern "C" [[gnu::visibility("hidden")]] const char* const zorvac_single_threaded;

namespace zorvac::mem {

// The only thread clears the variable before it starts a second one. So no other thread can run
// between this question and a few plain instructions that follow it.
[[gnu::always_inline]] inline bool is_single_threaded() {
  return zorvac_single_threaded != nullptr &&
         __atomic_load_n(zorvac_single_threaded, __ATOMIC_RELAXED) != 0;
}

}  // namespace zorvac::mem
#endif
