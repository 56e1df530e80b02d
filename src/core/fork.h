#ifndef ZORVAC_CORE_FORK_H
#define ZORVAC_CORE_FORK_H
// Handlers around a fork. The routine is the one under pthread_atfork, which the C library links
// into each shared object: by that object's own handle the handlers go when it is unloaded. Both
// names are weak: a program without fork need not have the one, nor one without the compiler's
// start-up files the other.

extern "C" {
[[gnu::weak]] int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(),
                                    void* object);
[[gnu::weak, gnu::visibility("hidden")]] extern char __dso_handle;
}

namespace zorvac {

// Has `prepare` called before each fork, and one of the others after it. Each may be null.
inline void at_fork(void (*prepare)(), void (*parent)(), void (*child)()) {
  if (__register_atfork != nullptr) __register_atfork(prepare, parent, child, &__dso_handle);
}

}  // namespace zorvac
#endif
