#ifndef ZORVAC_TESTS_MEM_SYSTEM_H
#define ZORVAC_TESTS_MEM_SYSTEM_H
// The C library's allocator, as the library under test asks for it. The linker puts this between
// them (--wrap): what is asked while a test watches is written down and answered from here, so that
// it works the same under a sanitizer's allocator. One test source includes this.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <functional>
#include <string>

#include "support/child.h"
#include "zorvac/mem.h"

namespace zorvac::test {

// Memory of the system's is never taken back. In front of a block stands the word that the C
// library would put there; 2 marks one that was mapped for the purpose, and is zero.
struct system_memory {
  bool watched = false, fails = false;
  std::uint64_t header = 2;
  std::size_t offset = 16;  // in its page
  std::string asked = {};
  unsigned char* last = nullptr;

  template <class Real>
  void* give(const char* call, std::size_t bytes, Real real) {
    if (!watched) return real();
    asked += call + std::to_string(bytes) + ' ';
    if (fails) return nullptr;
    auto* const map = static_cast<unsigned char*>(
        mmap(nullptr, offset + bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if ((header & 2) == 0) std::memset(map, 0xcc, offset + bytes);  // used before
    std::memcpy(map + offset - 8, &header, 8);
    return last = map + offset;
  }
};
inline system_memory the_system;

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void __real_free(void*);
void* __real__zorva_fast_memset(void*, int, std::size_t);
void* __real__zorva_fast_memcpy(void*, const void*, std::size_t);

void* __wrap_malloc(std::size_t bytes) {
  return the_system.give("malloc ", bytes, [=] { return __real_malloc(bytes); });
}
void* __wrap_calloc(std::size_t n, std::size_t bytes) {
  return the_system.give("calloc ", n * bytes, [=] { return __real_calloc(n, bytes); });
}
void* __wrap_realloc(void* block, std::size_t bytes) {
  return the_system.give("realloc ", bytes, [=] { return __real_realloc(block, bytes); });
}
void __wrap_free(void* block) {
  if (!the_system.watched) return __real_free(block);
  the_system.asked += block == the_system.last ? "free " : "free another ";
}
void* __wrap__zorva_fast_memset(void* to, int value, std::size_t bytes) {
  if (the_system.watched) the_system.asked += "fill " + std::to_string(bytes) + ' ';
  return __real__zorva_fast_memset(to, value, bytes);
}
void* __wrap__zorva_fast_memcpy(void* to, const void* from, std::size_t bytes) {
  if (the_system.watched) the_system.asked += "copy " + std::to_string(bytes) + ' ';
  return __real__zorva_fast_memcpy(to, from, bytes);
}
}

// What `body` makes the library ask for.
template <class Body>
std::string asked(Body body) {
  the_system.asked.clear();
  the_system.watched = true;
  body();
  the_system.watched = false;
  return the_system.asked;
}

// Runs a test's body in a process of its own, since pools stay for the life of a process. Failed
// expectations stand in the output.
inline void in_own_process(const std::function<void()>& body) {
  const outcome o = run_in_child([&body] {
    body();
    std::printf(testing::Test::HasFailure() ? "failed" : "passed");
  });
  EXPECT_EQ(o, (outcome{"passed", "", 0, 0}));
}

}  // namespace zorvac::test
#endif
