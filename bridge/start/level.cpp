// The start-up check of a program of any compiler: before the first constructor runs, it passes the
// features that the program was compiled for to the library's check of feature masks.
//
// A program needs the features of its link command's options, and those that all of its files were
// compiled for. If only some files may use a feature, the program chooses at run time whether it
// calls them, and so it does not need the feature.
#include <unistd.h>

#include <cstdint>

#include "zorvac/startup.h"

extern "C" {
#pragma GCC visibility push(hidden)
// The bounds of the sections with level.h's words. The linker defines them for each section whose
// name is a C identifier.
extern const std::uint64_t __start_zorvac_level_of_files[], __stop_zorvac_level_of_files[];
extern const std::uint64_t __start_zorvac_level_of_link[], __stop_zorvac_level_of_link[];
#pragma GCC visibility pop
}

namespace {

// A word of our own in each section, which changes no result: the linker defines no bounds for a
// section that no object has. No file has all bits, because some bits have no meaning.
constexpr std::uint64_t all_bits = ~std::uint64_t{0};
[[gnu::section("zorvac_level_of_files"), gnu::used]] const std::uint64_t no_file = all_bits;
[[gnu::section("zorvac_level_of_link"), gnu::used]] const std::uint64_t no_option = 0;

std::uint64_t needed() {
  std::uint64_t in_all_files = all_bits;
  for (const auto* word = __start_zorvac_level_of_files; word != __stop_zorvac_level_of_files;)
    in_all_files &= *word++;
  std::uint64_t mask = in_all_files == all_bits ? 0 : in_all_files;
  for (const auto* word = __start_zorvac_level_of_link; word != __stop_zorvac_level_of_link;)
    mask |= *word++;
  return mask;
}

// In a dynamic program the C library is not set up yet. For a message only the environment is
// missing, which chooses the catalogue.
void check(int, char**, char** environment) {
  if (environ == nullptr) environ = environment;
  __zorva_new_feature_proc_init(0, needed());
}

// In a shared object nothing runs before the constructors: there, the check is the first of them.
#ifdef ZORVAC_LEVEL_SHARED
#define ZORVAC_FIRST_OF_ALL ".init_array.00000"
#else
#define ZORVAC_FIRST_OF_ALL ".preinit_array"
#endif
[[gnu::section(ZORVAC_FIRST_OF_ALL), gnu::used]] void (*const entry)(int, char**, char**) = check;

}  // namespace
