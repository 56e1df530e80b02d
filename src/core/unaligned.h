#ifndef ZORVAC_CORE_UNALIGNED_H
#define ZORVAC_CORE_UNALIGNED_H
// Loads and stores of values at any address, each one instruction for a value that fits a register.
// They use the compiler's built-in memcpy, which stays built in when a source is compiled without
// built-in routines.

namespace zorvac {
namespace {

template <class Value>
[[gnu::always_inline]] inline Value load_unaligned(const void* from) {
  Value value;
  __builtin_memcpy(&value, from, sizeof value);
  return value;
}
template <class Value>
[[gnu::always_inline]] inline void store_unaligned(void* to, Value value) {
  __builtin_memcpy(to, &value, sizeof value);
}

}  // namespace
}  // namespace zorvac
#endif
