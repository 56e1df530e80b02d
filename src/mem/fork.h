#ifndef ZORVAC_MEM_FORK_H
#define ZORVAC_MEM_FORK_H
// Handlers around a fork. __register_atfork is the routine that pthread_atfork calls. It takes the
// handle of the shared object (__dso_handle), so the handlers are removed when the object is
// unloaded. Both names are weak: a static program without fork has no __register_atfork, and a
// program that is linked without the compiler's start-up files has no __dso_handle.

extern "C" {
[[gnu::weak]] int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(),
                                    void* object);
[[gnu::weak, gnu::visibility("hidden")]] extern char __dso_handle;
}

namespace zorvac {

// Registers handlers: `prepare` runs before each fork, then `parent` or `child` in that process.
// Each may be null.
inline void at_fork(void (*prepare)(), void (*parent)(), void (*child)()) {
  if (__register_atfork != nullptr) __register_atfork(prepare, parent, child, &__dso_handle);
}

}  // namespace zorvac
#endif
