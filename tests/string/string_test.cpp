// Every routine against the C library's, on the same bytes at the same addresses: strings of every
// length at every place of a block, and against an unreadable page on either side. The answers must
// be the same, and all memory around. Half of the calls are made by the inline functions, half by
// the registers of the interface, where those that are to be preserved are looked at too.
#include "zorvac/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <concepts>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <numeric>
#include <random>
#include <string>

#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

// All memory there is: two pages for strings and one for malloc, each between unreadable ones.
// What malloc gives touches the next one, or there is nothing left.
guarded_block pages[] = {guarded_block(1), guarded_block(1), guarded_block(1)};
enum page : std::size_t { here, there, heap };
char* begin(page p) { return reinterpret_cast<char*>(pages[p].begin()); }
char* end(page p) { return reinterpret_cast<char*>(pages[p].end()); }
bool heap_is_used = false, heap_is_empty = false;

std::string memory() {
  std::string all;
  for (const page p : {here, there, heap}) all.append(begin(p), end(p));
  return all;
}
void restore(const std::string& all) {
  const char* from = all.data();
  for (const page p : {here, there, heap}) {
    std::copy_n(from, pages[p].size(), begin(p));
    from += pages[p].size();
  }
}

}  // namespace

extern "C" void* __real_malloc(std::size_t bytes);
extern "C" void* __wrap_malloc(std::size_t bytes) {
  if (!heap_is_used) return __real_malloc(bytes);
  return heap_is_empty ? nullptr : end(heap) - bytes;
}

namespace {

// What the routines get: a string; its partner (a destination, another string, a set), a character
// or a limit; a count.
struct operands {
  char* string;          // RCX
  std::uint64_t second;  // RDX
  std::size_t count;     // R8

  [[nodiscard]] char* partner() const { return reinterpret_cast<char*>(second); }
  [[nodiscard]] int character() const { return static_cast<int>(second); }
};
// What of them a routine takes, and what it does. Those from `limit` to `order` look at no more
// of a string than they are told, so that it need not end.
enum class kind { tail, seek, find, limit, field, append, order, copy, set, tokens, int64, int32 };
enum class level { sse2, ssse3, sse4 };
struct routine {
  level instructions;
  const char* name;
  void* address;
  kind how;
  std::uint64_t (*inlined)(const operands&);   // the header's function
  std::uint64_t (*expected)(const operands&);  // the C library's

  [[nodiscard]] bool runs() const {
    if (instructions == level::ssse3) return __builtin_cpu_supports("ssse3") != 0;
    return instructions == level::sse2 || __builtin_cpu_supports("sse4.2") != 0;
  }
  [[nodiscard]] bool is_tail() const { return how <= kind::seek; }
  [[nodiscard]] bool is_bounded() const { return how >= kind::limit && how <= kind::order; }
  [[nodiscard]] bool writes() const {
    return how == kind::field || how == kind::append || how == kind::copy;
  }
};

// What the C library lacks, or does otherwise.
char* strend(const char* s) { return std::strchr(const_cast<char*>(s), 0); }
char* strdup(const char* s) {  // uses the malloc above
  void* const twin = std::malloc(std::strlen(s) + 1);
  return twin == nullptr ? nullptr : std::strcpy(static_cast<char*>(twin), s);
}
// Modulo 2^64, where strtoll stops at its limits.
long long atoll(const char* s) {
  char* end = nullptr;
  errno = 0;
  const long long limited = std::strtoll(s, &end, 10);
  if (errno != ERANGE) return limited;
  std::uint64_t value = 0;
  for (const char* digit = std::strpbrk(s, "0123456789"); digit != end; ++digit)
    value = value * 10 + static_cast<unsigned>(*digit - '0');
  return static_cast<long long>(limited < 0 ? 0 - value : value);
}
long atol(const char* s) { return atoll(s); }
int atoi(const char* s) { return static_cast<int>(atoll(s)); }

std::uint64_t word(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }
std::uint64_t word(std::integral auto value) { return static_cast<std::uint64_t>(value); }

#define ROUTINE(l, op, how, ...)                                                \
  {                                                                             \
    level::l, #l #op, reinterpret_cast<void*>(&__zorva_##l##_##op), kind::how,  \
        [](const operands& o) { return word(zorvac_##l##_##op(__VA_ARGS__)); }, \
        [](const operands& o) { return word(op(__VA_ARGS__)); }                 \
  }
#define OF_ALL_LEVELS(l)                                          \
  ROUTINE(l, strrchr, find, o.string, o.character()),             \
      ROUTINE(l, strcpy, copy, o.partner(), o.string),            \
      ROUTINE(l, stpcpy, copy, o.partner(), o.string),            \
      ROUTINE(l, strncpy, field, o.partner(), o.string, o.count), \
      ROUTINE(l, stpncpy, field, o.partner(), o.string, o.count)
#define OF_TWO_LEVELS(l)                                                                  \
  ROUTINE(l, strlen, tail, o.string), ROUTINE(l, strend, tail, o.string),                 \
      ROUTINE(l, strchr, seek, o.string, o.character()),                                  \
      ROUTINE(l, strnlen, limit, o.string, o.second), ROUTINE(l, strdup, copy, o.string), \
      ROUTINE(l, strcat, copy, o.partner(), o.string),                                    \
      ROUTINE(l, strncat, append, o.partner(), o.string, o.count),                        \
      ROUTINE(l, strncmp, order, o.string, o.partner(), o.count),                         \
      ROUTINE(l, strspn, set, o.string, o.partner()),                                     \
      ROUTINE(l, strcspn, set, o.string, o.partner()),                                    \
      ROUTINE(l, strpbrk, set, o.string, o.partner()),                                    \
      ROUTINE(l, strtok, tokens, o.string, o.partner())
const routine routines[] = {OF_ALL_LEVELS(sse2),
                            OF_TWO_LEVELS(sse2),
                            OF_ALL_LEVELS(ssse3),
                            OF_ALL_LEVELS(sse4),
                            OF_TWO_LEVELS(sse4),
                            ROUTINE(sse4, atoi, int32, o.string),
                            ROUTINE(sse4, atol, int64, o.string),
                            ROUTINE(sse4, atoll, int64, o.string)};
static_assert(std::size(routines) == 42);

class String : public testing::TestWithParam<routine> {
 protected:
  void SetUp() override {
    if (!GetParam().runs()) GTEST_SKIP() << "this processor cannot run it";
    std::iota(letters_.begin(), letters_.end(), '\x01');
    std::shuffle(letters_.begin(), letters_.end(), random_);
    for (char& c : noise_) c = static_cast<char>(random_());
  }
  std::size_t below(std::size_t limit) { return random_() % limit; }
  char any_of(const std::string& letters) { return letters[below(letters.size())]; }

  // The one letters up to a place, then any.
  std::string words(std::size_t length, const std::string& first) {
    const std::size_t until = first.empty() ? 0 : below(length + 1);
    std::string text(length, 0);
    for (std::size_t i = 0; i < length; ++i) text[i] = any_of(i < until ? first : letters_);
    return text;
  }
  // White space, a sign or more, digits, and what follows them; of each there may be nothing.
  std::string number(std::size_t digits) {
    std::string text;
    for (std::size_t n = below(2) * below(40); n != 0; --n) text += any_of(" \t\n\v\f\r");
    for (std::size_t n = below(8) / 3; n != 0; --n) text += any_of("+-+- ");
    text.append(below(2) * below(20), '0');
    const std::string from = below(4) == 0 ? "9" : "0123456789";
    for (; digits != 0; --digits) text += any_of(from);
    return below(4) == 0 ? text : text + any_of(letters_) + any_of("0123456789");
  }

  // Puts a string near either end of a page, or, cut off, right before the next one.
  char* put(page p, const std::string& text, std::size_t gap, bool cut) {
    char* const at = cut             ? end(p) - text.size()
                     : below(2) == 0 ? begin(p) + gap
                                     : end(p) - gap - text.size() - 1;
    std::memcpy(at, text.c_str(), text.size() + (cut ? 0 : 1));
    return at;
  }
  // Characters of the set or not of the set, then any; numbers; strings that part somewhere or do
  // not: whatever makes the routine look far, and stop anywhere.
  operands scene(const routine& r, std::size_t length, std::size_t gap) {
    restore(noise_);
    heap_is_empty = below(8) == 0;
    const std::size_t from = below(200), size = below(41), place = below(length + 1);
    const std::string members = letters_.substr(from, size),
                      others = letters_.substr(from + size, 1 + below(20));
    const std::string text = r.how >= kind::int64 ? number(length % 51)
                                                  : words(length, below(2) == 0 ? members : others);
    std::string other = r.how == kind::order ? text : members;
    if (r.how == kind::order) {
      if (below(4) == 0 && place < length) other[place] = any_of(letters_);
      if (below(4) == 0) other += words(1 + below(20), {});
      if (below(4) == 0) other.resize(place);
    }
    const std::size_t counts[] = {0,           1,   place,        place + 1,    length,  length + 1,
                                  length + 17, 300, SIZE_MAX / 2, SIZE_MAX - 1, SIZE_MAX};
    const bool cut = r.is_bounded() && below(8) == 0;
    operands o;
    o.count = cut ? (r.how == kind::order ? std::min(length, other.size()) : length)
                  : counts[below(r.how == kind::field ? 8 : std::size(counts))];
    o.string = put(here, text, gap, cut);
    if (r.writes())
      o.second = word(std::strcpy(begin(there) + below(64), others.c_str()));
    else if (r.how == kind::find || r.how == kind::seek)
      o.second = random_() << 8 |
                 static_cast<unsigned char>(below(2) == 0 ? any_of(letters_) : text.c_str()[place]);
    else
      o.second = r.how == kind::limit ? o.count : word(put(there, other, below(64), cut));
    return o;
  }

  // Whoever calls a tail has found that the first block does not answer the question.
  static bool is_behind_first_block(const routine& r, const operands& o) {
    const char* const stop = strchrnul(o.string, r.how == kind::seek ? o.character() : 0);
    return word(stop) / 16 != word(o.string) / 16;
  }
  static std::uint64_t by_registers(const routine& r, const operands& o) {
    static const register_file filled = filled_registers(1);
    register_file in = filled;
    if (r.is_tail()) {
      in.general[rax] = word(o.string) / 16 * 16;
      in.general[rdx] = word(o.string);
    } else {
      in.general[rcx] = word(o.string);
      in.general[rdx] = o.second;
      in.general[r8] = o.count;
    }
    if (r.how == kind::seek) {
      in.vector[1].fill(0);
      std::fill_n(in.vector[1].begin(), r.instructions == level::sse2 ? 16 : 1,
                  static_cast<std::uint8_t>(o.second));
    }
    const register_file out = call_with_registers(reinterpret_cast<void (*)()>(r.address), in);
    bool kept = out.above == in.above && out.mxcsr == in.mxcsr && (out.flags & 0x400) == 0;
    for (const gpr i : {rbx, rbp, rsi, rdi, r12, r13, r14, r15})
      kept = kept && out.general[i] == in.general[i];
    for (std::size_t i = 6; i < 16; ++i)
      kept = kept && std::memcmp(out.vector[i].data(), in.vector[i].data(), 16) == 0;
    EXPECT_TRUE(kept) << testing::PrintToString(changed_registers(in, out)) << ", flags "
                      << out.flags;
    return out.general[rax];
  }

  // The bits of an answer that mean something.
  static std::uint64_t promised(kind how, std::uint64_t answer) {
    const auto narrow = static_cast<std::int32_t>(answer);
    if (how == kind::order) return word((narrow > 0) - (narrow < 0));
    return how == kind::int32 ? word(narrow) : answer;
  }
  // Leaves memory as the routine does, and returns what it returns.
  std::uint64_t check(const routine& r, const operands& o) {
    const std::string before = memory();
    heap_is_used = true;
    const bool registers =
        !counted && below(2) == 0 && (!r.is_tail() || is_behind_first_block(r, o));
    const std::uint64_t answer = promised(r.how, registers ? by_registers(r, o) : r.inlined(o));
    const std::string after = memory();
    restore(before);
    EXPECT_EQ(answer, promised(r.how, r.expected(o)));
    heap_is_used = false;
    EXPECT_TRUE(memory() == after) << "memory differs";
    return answer;
  }

  std::mt19937_64 random_{1};
  std::string letters_ = std::string(255, 0), noise_ = memory();
};

TEST_P(String, IsTheCLibrarysAtEveryLengthAndPlace) {
  for (std::size_t length = 0; length <= 200; ++length)
    for (std::size_t gap = 0; gap < 64; ++gap) {
      operands o = scene(GetParam(), length, gap);
      bool more = check(GetParam(), o) != 0 && GetParam().how == kind::tokens;
      o.string = nullptr;
      while (more)  // the levels share what is left of the string
        for (const routine& r : routines)
          if (r.how == kind::tokens && r.runs()) more = check(r, o) != 0;
      ASSERT_FALSE(HasFailure()) << "length " << length << ", gap " << gap;
    }
}

TEST(Tokens, NothingIsReadBehindTheLast) {
  char text[] = "last\0more";
  EXPECT_EQ(zorvac_sse2_strtok(text, ","), text);
  text[4] = '-';
  EXPECT_EQ(zorvac_sse2_strtok(nullptr, ","), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Routines, String, testing::ValuesIn(routines), name_of_row);

}  // namespace
}  // namespace zorvac::test
