#ifndef ZORVAC_TESTS_STARTUP_CHECKS_H
#define ZORVAC_TESTS_STARTUP_CHECKS_H
// The letter-coded start-up checks: what each variant takes, in literal masks, and how
// `.A` refuses.
#include <dlfcn.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zorvac::test {

constexpr std::uint64_t never = 0;  // by direct call only
struct check {
  std::string name;
  int refusal;  // number of a message; 0: nothing is done
  std::vector<std::pair<std::uint64_t, std::string>> variants;  // the most demanding comes first
};
inline const check checks[] = {
    {"__zorva_new_proc_init", 0, {{0x3f, ".H"}}},
    {"__zorva_new_proc_init_B", 44, {{0xff, ".L"}, {0x7f, ".K"}, {never, ".J"}}},
    {"__zorva_new_proc_init_N", 45, {{0xff, ".L"}, {0x7f, ".K"}, {never, ".J"}}},
    {"__zorva_new_proc_init_P", 43, {{0xff, ".L"}}},
    {"__zorva_new_proc_init_T", 42, {{0x1ff, ".M"}}},
    {"__zorva_new_proc_init_L", 48, {{0x1ff, ".O"}}},
    {"__zorva_new_proc_init_S", 46, {{0x3ff, ".N"}}},
    {"__zorva_new_proc_init_H", 47, {{0x17ff, ".P"}}},
    {"__zorva_new_proc_init_G", 50, {{0x117ff, ".R"}}},
    {"__zorva_new_proc_init_I", 51, {{0x197ff, ".S"}}},
    {"__zorva_new_proc_init_E", 52, {{0x9d97ff, ".V"}}},
    {"__zorva_proc_init", 0, {{0x3f, ".H"}}},
    {"__zorva_proc_init_B", 44, {{0xff, ".L"}, {0x7f, ".K"}, {never, ".J"}}},
    {"__zorva_proc_init_N", 45, {{0xff, ".L"}, {0x7f, ".K"}, {never, ".J"}}},
    {"__zorva_proc_init_P", 43, {{0xff, ".L"}}},
    {"__zorva_proc_init_T", 42, {{0x1ff, ".M"}}},
};

inline void* routine(const std::string& name) { return dlsym(RTLD_DEFAULT, name.c_str()); }

}  // namespace zorvac::test
#endif
