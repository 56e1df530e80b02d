#ifndef ZORVAC_CORE_ATOMIC_H
#define ZORVAC_CORE_ATOMIC_H
// A value that threads share, with the memory orderings that the library uses. std::atomic is not
// used: all of its small functions have default visibility, and in a library whose functions a
// program may replace, clang calls such functions instead of inlining them.

namespace zorvac {

template <class T>
class atomic {
 public:
  constexpr atomic() = default;
  constexpr atomic(T value) : value_(value) {}  // NOLINT(google-explicit-constructor)
  atomic(const atomic&) = delete;
  atomic& operator=(const atomic&) = delete;

  [[nodiscard]] T load_relaxed() const { return __atomic_load_n(&value_, __ATOMIC_RELAXED); }
  [[nodiscard]] T load_acquire() const { return __atomic_load_n(&value_, __ATOMIC_ACQUIRE); }
  void store_relaxed(T value) { __atomic_store_n(&value_, value, __ATOMIC_RELAXED); }
  void store_release(T value) { __atomic_store_n(&value_, value, __ATOMIC_RELEASE); }

  // If the value equals `expected`, stores `value` with acquire ordering and returns true.
  // Otherwise, or spuriously, copies the value that it found to `expected` and returns false.
  bool try_replace_acquire(T& expected, T value) {
    return __atomic_compare_exchange_n(&value_, &expected, value, true, __ATOMIC_ACQUIRE,
                                       __ATOMIC_RELAXED);
  }
  // Returns the sum. Acquire and release ordering.
  T add(T summand) { return __atomic_add_fetch(&value_, summand, __ATOMIC_ACQ_REL); }

 private:
  T value_{};
};

}  // namespace zorvac
#endif
