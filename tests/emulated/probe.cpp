// Runs on an emulated processor and prints in one line what the library makes of it.
#include <dlfcn.h>

#include <cstdio>

#include "core/mxcsr.h"
#include "cpu/cpu_feature_disp.h"
#include "support/child.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;

// The letters of the checks that set the modes, '-' for one that refuses, '.' for one that only
// returns. The check without a letter is '*'.
void print_starts(const std::string& generation, const char* letters, const std::string& modes) {
  for (const char* c = letters; *c != '\0'; ++c) {
    const std::string name = *c == '*' ? generation : generation + '_' + *c;
    const auto check = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, name.c_str()));
    const test::outcome o = test::run_in_child([&] {
      mxcsr::write(0x1f80);
      check(1);
      std::printf("%x", mxcsr::read());
    });
    const bool refused = o.exit_status == 1 && !o.standard_error.empty();
    std::putchar(o.standard_output == modes    ? *c
                 : o.standard_output == "1f80" ? '.'
                 : refused                     ? '-'
                                               : '?');
  }
}

}  // namespace

int main() {
  print_starts("__zorva_new_proc_init", "*BNPTLSHGIE", "9f80");
  print_starts("__zorva_proc_init", "*BNPT", "9fc0");
  // Nothing has been detected in this process yet.
  const bool untouched = (__zorva_cpu_feature_indicator | __zorva_cpu_feature_indicator_x) == 0;
  const std::uint64_t word = cpu::feature_word(hardware_processor{});
  __zorva_cpu_features_init_x();
  __zorva_cpu_features_init();
  __zorva_cpu_indicator_init();
  const bool own = __zorva_cpu_feature_indicator == word;
  const bool right = own || __zorva_cpu_feature_indicator == 1;
  std::printf(" %s%s %x %u %u %u", own ? "own" : "foreign",
              untouched && right && __zorva_cpu_feature_indicator_x == word ? "" : " WRONG",
              __zorva_cpu_indicator, __cacheSize(1), __cacheSize(2), __cacheSize(3));
}
