#ifndef ZORVAC_TESTS_STARTUP_CHECKS_H
#define ZORVAC_TESTS_STARTUP_CHECKS_H
// The letter-coded start-up checks: what each takes, in literal masks, and how it refuses.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zorvac/startup.h"

namespace zorvac::test {

struct check {
  std::string name;
  void* routine;
  int refusal;  // number of a message; 0: nothing is done
  std::vector<std::pair<std::uint64_t, const char*>> variants;  // the most demanding comes first
};
#define ZORVAC_CHECK(name, refusal, ...)                                                \
  {                                                                                     \
    "__zorva_" #name, reinterpret_cast<void*>(__zorva_##name), refusal, { __VA_ARGS__ } \
  }
inline const check checks[] = {
    ZORVAC_CHECK(new_proc_init, 0, {0x3f, "H"}),
    ZORVAC_CHECK(new_proc_init_B, 44, {0xff, "L"}, {0x7f, "K"}),
    ZORVAC_CHECK(new_proc_init_N, 45, {0xff, "L"}, {0x7f, "K"}),
    ZORVAC_CHECK(new_proc_init_P, 43, {0xff, "L"}),
    ZORVAC_CHECK(new_proc_init_T, 42, {0x1ff, "M"}),
    ZORVAC_CHECK(new_proc_init_L, 48, {0x1ff, "O"}),
    ZORVAC_CHECK(new_proc_init_S, 46, {0x3ff, "N"}),
    ZORVAC_CHECK(new_proc_init_H, 47, {0x17ff, "P"}),
    ZORVAC_CHECK(new_proc_init_G, 50, {0x117ff, "R"}),
    ZORVAC_CHECK(new_proc_init_I, 51, {0x197ff, "S"}),
    ZORVAC_CHECK(new_proc_init_E, 52, {0x9d97ff, "V"}),
    ZORVAC_CHECK(proc_init, 0, {0x3f, "H"}),
    ZORVAC_CHECK(proc_init_B, 44, {0xff, "L"}, {0x7f, "K"}),
    ZORVAC_CHECK(proc_init_N, 45, {0xff, "L"}, {0x7f, "K"}),
    ZORVAC_CHECK(proc_init_P, 43, {0xff, "L"}),
    ZORVAC_CHECK(proc_init_T, 42, {0x1ff, "M"}),
};
#undef ZORVAC_CHECK

}  // namespace zorvac::test
#endif
