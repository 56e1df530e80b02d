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

// What is asked. In front of a block of memory stands the word that the C library would put there; 2
// marks one that was mapped for the purpose, and is zero. Nothing is taken back.
inline struct {
  bool watched = false, fails = false;
  std::uint64_t header = 2;
  std::size_t offset = 16;  // of a block in its page
  unsigned char* last = nullptr;
  std::string asked = {};

  void note(const char* call, std::size_t bytes) {
    if (watched) asked += call + std::to_string(bytes) + ' ';
  }
  void* give(const char* call, std::size_t bytes) {
    note(call, bytes);
    if (fails) return nullptr;
    auto* const map = static_cast<unsigned char*>(
        mmap(nullptr, offset + bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if ((header & 2) == 0) std::memset(map, 0xcc, offset + bytes);  // used before
    std::memcpy(map + offset - 8, &header, 8);
    return last = map + offset;
  }
} the_system;

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void __real_free(void*);
void* __real__zorva_fast_memset(void*, int, std::size_t);
void* __real__zorva_fast_memcpy(void*, const void*, std::size_t);

void* __wrap_malloc(std::size_t size) {
  return the_system.watched ? the_system.give("malloc ", size) : __real_malloc(size);
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
  return the_system.watched ? the_system.give("calloc ", n * size) : __real_calloc(n, size);
}
void* __wrap_realloc(void* old, std::size_t size) {
  return the_system.watched ? the_system.give("realloc ", size) : __real_realloc(old, size);
}
void __wrap_free(void* block) {
  if (!the_system.watched) return __real_free(block);
  the_system.asked += block == the_system.last ? "free " : "free another ";
}
void* __wrap__zorva_fast_memset(void* to, int value, std::size_t bytes) {
  the_system.note("fill ", bytes);
  return __real__zorva_fast_memset(to, value, bytes);
}
void* __wrap__zorva_fast_memcpy(void* to, const void* from, std::size_t bytes) {
  the_system.note("copy ", bytes);
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
