#ifndef ZORVAC_BENCH_SUPPORT_LIBC_PEER_H
#define ZORVAC_BENCH_SUPPORT_LIBC_PEER_H
// The C library as a peer. Normally it uses its best variant for the processor. To compare equal
// levels, a program runs once more for each lower level, with the C library held to its variants of
// that level (GLIBC_TUNABLES; bench/families.py has the values). Each run registers the members
// that are compared with that level, and names the peer after it.
//
// The context of the results has the places of the routines in the C library, so that a
// disassembler can show that the restriction took effect.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <gnu/libc-version.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace zorvac::bench {

// The levels that the C library may be held to. A member has all levels that it is compared with.
enum libc_level : unsigned { best = 1, avx2 = 2, sse4 = 4, ssse3 = 8, sse2 = 16, any = 31 };

struct libc_peer {
  std::string name;
  libc_level level;
};

// Tests the levels from the lowest up: the first one that lacks its feature is it.
inline libc_peer libc() {
  const char* const set = std::getenv("GLIBC_TUNABLES");
  const std::string_view tunables = set != nullptr ? set : "";
  const auto without = [&](std::string_view f) { return tunables.find(f) != tunables.npos; };
  if (without("-SSSE3")) return {"libc-sse2", sse2};
  if (without("-SSE4_2")) return {"libc-ssse3", ssse3};
  if (without("-AVX2")) return {"libc-sse4", sse4};
  if (without("-AVX512F")) return {"libc-avx2", avx2};
  return {"libc", best};
}

// A line of the page's list of peers.
inline void record_peer(const std::string& name, const std::string& version) {
  benchmark::AddCustomContext("peer " + name, version);
}
inline void record_libc() {
  record_peer("C library", std::string("glibc ") + gnu_get_libc_version());
}
inline void record_libgcc() {
#ifdef __clang__
  record_peer("libgcc", "the one that clang " __clang_version__ "takes");
#else
  record_peer("libgcc", "of g++ " __VERSION__);
#endif
}

// The template argument chooses among overloaded functions.
template <class Function>
void record_variant(const char* name, Function* function) {
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
