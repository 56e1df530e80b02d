// The start-up check of a program of any compiler: before the first constructor runs, it tells the
// library's check of feature masks what the program was compiled for.
//
// A program needs what the options of its link command stand for, and what all of its files were
// compiled for. Where one file may use more than the others, the program chooses at run time
// whether it calls that file, and so does not need it.
#include <unistd.h>

#include <cstdint>

#include "zorvac/startup.h"

extern "C" {
#pragma GCC visibility push(hidden)
// The bounds of the sections that level.h leaves words in, defined by the linker for each section
// whose name is a C identifier.
extern const std::uint64_t __start_zorvac_level_of_files[], __stop_zorvac_level_of_files[];
extern const std::uint64_t __start_zorvac_level_of_link[], __stop_zorvac_level_of_link[];
#pragma GCC visibility pop
}

namespace {

// A word of our own in each, which changes no result: where no object has a section, the linker
// defines no bounds of it. No file has all bits, since some of them stand for nothing.
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

// In a dynamic program the C library has not been set up yet. All that is missing for a message is
// the environment, which chooses the catalogue.
void check(int, char**, char** environment) {
  if (environ == nullptr) environ = environment;
  __zorva_new_feature_proc_init(0, needed());
}

// A shared object has nothing that runs before its constructors: there, the check is the first.
#ifdef ZORVAC_LEVEL_SHARED
#define ZORVAC_FIRST_OF_ALL ".init_array.00000"
#else
#define ZORVAC_FIRST_OF_ALL ".preinit_array"
#endif
[[gnu::section(ZORVAC_FIRST_OF_ALL), gnu::used]] void (*const entry)(int, char**, char**) = check;

}  // namespace
