// Runs on an emulated processor and prints what that processor answers and what the library makes
// of it, one fact a line, for the test outside to judge.
#include <cstdio>
#include <utility>

#include "core/mxcsr.h"
#include "core/processor.h"
#include "support/child.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

namespace {

using namespace zorvac;

void print_answers() {
  const hardware_processor p;
  const auto print = [&](std::uint32_t leaf, std::uint32_t subleaf) {
    const cpuid_answer a = p.cpuid(leaf, subleaf);
    std::printf("cpuid %x %x %x %x %x %x\n", leaf, subleaf, a.eax, a.ebx, a.ecx, a.edx);
  };
  for (const std::uint32_t leaf : {0u, 1u, 2u, 7u, 0x80000000u, 0x80000001u, 0x80000006u})
    print(leaf, 0);
  for (std::uint32_t subleaf = 0; subleaf < 8; ++subleaf) print(4, subleaf);
  const bool osxsave = (p.cpuid(1, 0).ecx >> 27 & 1) != 0;
  std::printf("xcr0 %llx\n", osxsave ? static_cast<unsigned long long>(p.xgetbv()) : 0ull);
}

void print_findings() {
  for (std::uint32_t level = 1; level <= 3; ++level)
    std::printf("cache%u %x\n", level, __cacheSize(level));
  std::printf("untouched %lx\n", __zorva_cpu_feature_indicator | __zorva_cpu_feature_indicator_x);
  __zorva_cpu_features_init_x();
  __zorva_cpu_features_init();
  __zorva_cpu_indicator_init();
  std::printf("indicator %lx\n", __zorva_cpu_feature_indicator);
  std::printf("indicator_x %lx\n", __zorva_cpu_feature_indicator_x);
  std::printf("class %x\n", __zorva_cpu_indicator);
}

// Prints the MXCSR that a check left, or "refused".
template <class Check>
void print_start(const char* name, Check check) {
  const test::outcome o = test::run_in_child([&] {
    mxcsr::write(0x1f80);
    check();
    std::printf("%x", mxcsr::read());
  });
  const bool refused = o.exit_status == 1 && o.standard_output.empty() && !o.standard_error.empty();
  std::printf("%s %s\n", name, refused ? "refused" : o.standard_output.c_str());
}

}  // namespace

int main() {
  print_answers();
  print_findings();
  constexpr std::pair<const char*, void (*)(int)> with_flags[] = {
      {"new", __zorva_new_proc_init},     {"new_B", __zorva_new_proc_init_B},
      {"new_N", __zorva_new_proc_init_N}, {"new_P", __zorva_new_proc_init_P},
      {"new_T", __zorva_new_proc_init_T}, {"new_L", __zorva_new_proc_init_L},
      {"new_S", __zorva_new_proc_init_S}, {"new_H", __zorva_new_proc_init_H},
      {"new_G", __zorva_new_proc_init_G}, {"new_I", __zorva_new_proc_init_I},
      {"new_E", __zorva_new_proc_init_E}};
  for (const auto& [name, check] : with_flags) print_start(name, [start = check] { start(1); });
  constexpr std::pair<const char*, void (*)()> without_flags[] = {{"old", __zorva_proc_init},
                                                                  {"old_B", __zorva_proc_init_B},
                                                                  {"old_N", __zorva_proc_init_N},
                                                                  {"old_P", __zorva_proc_init_P},
                                                                  {"old_T", __zorva_proc_init_T}};
  for (const auto& [name, check] : without_flags) print_start(name, check);
  print_start("mask",
              [] { __zorva_new_feature_proc_init(1, ZORVAC_FEATURE_AVX2 | ZORVAC_FEATURE_SSE2); });
}
