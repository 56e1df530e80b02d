#ifndef ZORVAC_MEM_SINGLE_THREADED_H
#define ZORVAC_MEM_SINGLE_THREADED_H
// Whether the process has one thread, so that a counter needs no locked instruction.

// The C library's __libc_single_threaded, which came with glibc 2.32; null in an older one.
extern "C" [[gnu::visibility("hidden")]] const char* const zorvac_single_threaded;

namespace zorvac::mem {

// The C library clears its word before a second thread starts, in the one thread that there is. So
// no thread can come in between the question and a few plain instructions that follow it.
[[gnu::always_inline]] inline bool is_single_threaded() {
  return zorvac_single_threaded != nullptr &&
         __atomic_load_n(zorvac_single_threaded, __ATOMIC_RELAXED) != 0;
}

}  // namespace zorvac::mem
#endif
