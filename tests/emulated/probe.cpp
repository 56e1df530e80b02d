// Runs on an emulated processor and prints what that processor answers and what the library makes
// of it, for the test outside to judge.
#include <cpuid.h>
#include <dlfcn.h>

#include <cstdio>

#include "core/mxcsr.h"
#include "core/processor.h"
#include "support/child.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;

void print_answers(std::uint32_t leaf, std::uint32_t subleaves) {
  for (std::uint32_t i = 0; i < subleaves; ++i) {
    cpuid_answer a{};
    __cpuid_count(leaf, i, a.eax, a.ebx, a.ecx, a.edx);
    std::printf("cpuid %x %x %x %x %x %x\n", leaf, i, a.eax, a.ebx, a.ecx, a.edx);
  }
}

// The letters of the checks that set the modes, '-' for one that refuses, '.' for one that only
// returns. The one without a letter is '*'.
void print_starts(const std::string& generation, const char* letters, const std::string& modes) {
  for (const char* c = letters; *c != '\0'; ++c) {
    const std::string name = *c == '*' ? generation : generation + '_' + *c;
    const auto check = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, name.c_str()));
    const test::outcome o = test::run_in_child([&] {
      mxcsr::write(0x1f80);
      check(1);
      std::printf("%x", mxcsr::read());
    });
    const bool refused =
        o.exit_status == 1 && o.standard_output.empty() && !o.standard_error.empty();
    const bool returned = o.standard_output == "1f80";
    std::putchar(o.standard_output == modes ? *c : refused ? '-' : returned ? '.' : '?');
  }
}

}  // namespace

int main() {
  for (const std::uint32_t leaf : {0u, 1u, 2u, 7u, 0x80000000u, 0x80000001u, 0x80000006u})
    print_answers(leaf, 1);
  print_answers(4, 8);
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  __cpuid(1, eax, ebx, ecx, edx);
  const std::uint64_t xcr0 = (ecx & bit_OSXSAVE) != 0 ? hardware_processor::xgetbv() : 0;
  std::printf("xcr0 %lx\n", xcr0);
  print_starts("__zorva_new_proc_init", "*BNPTLSHGIE", "9f80");
  print_starts("__zorva_proc_init", "*BNPT", "9fc0");
  std::printf(" %lx", __zorva_cpu_feature_indicator | __zorva_cpu_feature_indicator_x);
  __zorva_cpu_features_init_x();
  __zorva_cpu_features_init();
  __zorva_cpu_indicator_init();
  std::printf(" %lx %lx %x", __zorva_cpu_feature_indicator, __zorva_cpu_feature_indicator_x,
              __zorva_cpu_indicator);
  for (std::uint32_t level = 1; level <= 3; ++level) std::printf(" %x", __cacheSize(level));
}
