#ifndef ZORVAC_TESTS_STARTUP_CHECKS_H
#define ZORVAC_TESTS_STARTUP_CHECKS_H
// The letter-coded start-up checks: what each variant requires and assumes, and how `.A` refuses.
#include <dlfcn.h>

#include <string>
#include <vector>

#include "support/masks.h"

namespace zorvac::test {

// The optional modes that a variant assumes to be supported, without asking the processor.
enum assumption { nothing = 0, daz = 2, daz_and_bit_17 = 6 };

constexpr std::uint64_t never_selected = 0;  // can only be called directly
struct variant {
  std::uint64_t takes;
  std::string letter;
  assumption assumes = nothing;
};
struct check {
  std::string name;
  std::vector<variant> variants;  // the most demanding comes first
  int refusal = 0;                // number of a message; 0: does not refuse
};
inline const std::vector<variant> from_sse2 = {
    {level::sse3, ".L", daz}, {level::sse2, ".K", daz}, {never_selected, ".J", nothing}};
inline const check checks[] = {
    {"__zorva_new_proc_init", {{level::sse, ".H", nothing}}},
    {"__zorva_new_proc_init_B", from_sse2, 44},
    {"__zorva_new_proc_init_N", from_sse2, 45},
    {"__zorva_new_proc_init_P", {{level::sse3, ".L", daz}}, 43},
    {"__zorva_new_proc_init_T", {{level::ssse3, ".M", daz}}, 42},
    {"__zorva_new_proc_init_L", {{level::ssse3, ".O", daz}}, 48},
    {"__zorva_new_proc_init_S", {{level::sse4_1, ".N", daz}}, 46},
    {"__zorva_new_proc_init_H", {{level::sse4_2, ".P", daz_and_bit_17}}, 47},
    {"__zorva_new_proc_init_G", {{level::avx, ".R", daz_and_bit_17}}, 50},
    {"__zorva_new_proc_init_I", {{level::f16c, ".S", daz_and_bit_17}}, 51},
    {"__zorva_new_proc_init_E", {{level::avx2, ".V", daz_and_bit_17}}, 52},
    {"__zorva_proc_init", {{level::sse, ".H", nothing}}},
    {"__zorva_proc_init_B", from_sse2, 44},
    {"__zorva_proc_init_N", from_sse2, 45},
    {"__zorva_proc_init_P", {{level::sse3, ".L", daz}}, 43},
    {"__zorva_proc_init_T", {{level::ssse3, ".M", daz}}, 42},
};

// The modes that a check sets when it is called with `flags`. The older checks ignore the flags.
inline int effective(const check& c, int flags) {
  return c.name.starts_with("__zorva_new") ? flags : 3;
}

inline void (*routine(const std::string& name))(int) {
  return reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, name.c_str()));
}

}  // namespace zorvac::test
#endif
