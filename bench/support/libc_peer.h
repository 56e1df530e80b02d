#ifndef ZORVAC_BENCH_SUPPORT_LIBC_PEER_H
#define ZORVAC_BENCH_SUPPORT_LIBC_PEER_H
// The C library as a peer. By itself it takes its best variant for the processor; for the members
// of a lower level it is held to its variants of that level, in one more run of the same program,
// whose rows name the peer "libc-ssse3" or "libc-sse2":
//
//   export GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX512F,-AVX512VL,-AVX_Fast_Unaligned_Load
//   GLIBC_TUNABLES=$GLIBC_TUNABLES,-ERMS,-FSRM,-SSE4_1,-SSE4_2,-MOVBE <program>
//   GLIBC_TUNABLES=$GLIBC_TUNABLES,-ERMS,-FSRM,-SSE4_1,-SSE4_2,-MOVBE,-SSSE3,-BMI2 <program>
//
// The context of the results tells where in the C library its routines lie, so that a disassembler
// can show that the restriction took effect.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace zorvac::bench {

inline std::string libc_name() {
  const char* const tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables == nullptr || std::strstr(tunables, "-AVX2") == nullptr) return "libc";
  return std::strstr(tunables, "-SSSE3") == nullptr ? "libc-ssse3" : "libc-sse2";
}

// To be told which one of overloaded functions is meant by its type.
template <class Function>
void tell_variant(const char* name, Function* function) {
  Dl_info where{};
  auto* const address = reinterpret_cast<void*>(function);
  if (dladdr(address, &where) == 0) return;
  char text[32];
  std::snprintf(text, sizeof text, "+0x%tx",
                static_cast<char*>(address) - static_cast<char*>(where.dli_fbase));
  benchmark::AddCustomContext(name, text);
}

}  // namespace zorvac::bench
#endif
