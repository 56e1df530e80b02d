// Every routine against the C library's, on the same bytes at the same addresses: strings of every
// length at every place of a block, and against an unreadable page on either side. The answers must
// be the same, and all memory around. Half of the calls are made by the inline functions, half by
// the registers of the interface, where those that are to be preserved are looked at too.
#include "zorvac/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

using word = std::uint64_t;

// All memory there is: two pages, each between unreadable ones. What malloc gives a routine touches
// the one behind the second, or there is nothing left.
const guarded_block here(1), there(1);
bool called = false, no_memory = false;
char* begin(const guarded_block& page) { return reinterpret_cast<char*>(page.begin()); }
char* end(const guarded_block& page) { return reinterpret_cast<char*>(page.end()); }

std::string memory() {
  return std::string(begin(here), end(here)).append(begin(there), end(there));
}
void restore(const std::string& all) {
  std::memcpy(begin(here), all.data(), here.size());
  std::memcpy(begin(there), all.data() + here.size(), there.size());
}

// What the routines get, each some of it: a string; its partner, which is a destination, another
// string or a set; a character; a count.
struct operands {
  char *string, *partner;
  int character;
  std::size_t count;
};
// What a routine is given. Those from `limit` to `order` look at no more of a string than they are
// told, so that it need not end.
enum class kind { tail, seek, find, limit, field, append, order, copy, set, tokens, int64, int32 };
enum level { sse2, ssse3, sse4 };
const bool runs[] = {true, __builtin_cpu_supports("ssse3") != 0,
                     __builtin_cpu_supports("sse4.2") != 0};
struct routine {
  level instructions;
  const char* name;
  void* address;
  kind how;
  word (*inlined)(const operands&);   // the header's function
  word (*expected)(const operands&);  // the C library's
};

// What the C library lacks, or does otherwise.
char* strend(const char* s) { return std::strchr(const_cast<char*>(s), 0); }
char* strdup(const char* s) {  // uses the malloc below
  void* const twin = std::malloc(std::strlen(s) + 1);
  return twin == nullptr ? nullptr : std::strcpy(static_cast<char*>(twin), s);
}
// Modulo 2^64, where strtoll stops at its limits.
long long atoll(const char* s) {
  char* stop = nullptr;
  const bool negative = std::strtoll(s, &stop, 10) < 0;
  word value = 0;
  for (s += std::strcspn(s, "0123456789"); s < stop; ++s) value = value * 10 + word(*s - '0');
  return static_cast<long long>(negative ? 0 - value : value);
}
long atol(const char* s) { return atoll(s); }
int atoi(const char* s) { return static_cast<int>(atoll(s)); }

// clang-format off
#define ROUTINE(l, op, how, ...) \
  {l, #l #op, reinterpret_cast<void*>(&__zorva_##l##_##op), kind::how, \
   [](const operands& o) { return word(zorvac_##l##_##op(__VA_ARGS__)); }, \
   [](const operands& o) { return word(op(__VA_ARGS__)); }}
#define OF_ALL_LEVELS(l) \
  ROUTINE(l, strcpy, copy, o.partner, o.string), ROUTINE(l, stpcpy, copy, o.partner, o.string), \
  ROUTINE(l, strncpy, field, o.partner, o.string, o.count), \
  ROUTINE(l, stpncpy, field, o.partner, o.string, o.count), \
  ROUTINE(l, strrchr, find, o.string, o.character)
#define OF_TWO_LEVELS(l) \
  OF_ALL_LEVELS(l), ROUTINE(l, strlen, tail, o.string), ROUTINE(l, strend, tail, o.string), \
  ROUTINE(l, strchr, seek, o.string, o.character), ROUTINE(l, strnlen, limit, o.string, o.count), \
  ROUTINE(l, strdup, copy, o.string), ROUTINE(l, strcat, copy, o.partner, o.string), \
  ROUTINE(l, strncat, append, o.partner, o.string, o.count), \
  ROUTINE(l, strncmp, order, o.string, o.partner, o.count), \
  ROUTINE(l, strspn, set, o.string, o.partner), ROUTINE(l, strcspn, set, o.string, o.partner), \
  ROUTINE(l, strpbrk, set, o.string, o.partner), ROUTINE(l, strtok, tokens, o.string, o.partner)
const routine routines[] = {
    OF_TWO_LEVELS(sse2), OF_ALL_LEVELS(ssse3), OF_TWO_LEVELS(sse4),
    ROUTINE(sse4, atoi, int32, o.string), ROUTINE(sse4, atol, int64, o.string),
    ROUTINE(sse4, atoll, int64, o.string)};
// clang-format on

std::mt19937_64 random_bits;
std::size_t below(std::size_t limit) { return random_bits() % limit; }
std::string some(std::size_t length, const std::string& letters) {
  std::string text(letters.empty() ? 0 : length, 0);
  for (char& c : text) c = letters[below(letters.size())];
  return text;
}
const std::string letters = [] {  // all that are not zero, no neighbours side by side
  std::string all(255, 0);
  for (std::size_t i = 0; i < 255; ++i) all[i] = static_cast<char>(i * 101 % 255 + 1);
  return all;
}();
const std::string noise = some(memory().size(), letters + '\0');

// Puts a string near either end of a page, or, cut off, right before the next one.
enum place { front, back, cut_off };
char* put(const guarded_block& page, const std::string& text, std::size_t gap, place where) {
  const std::size_t zero = where == cut_off ? 0 : 1, behind = zero * (gap + 1) + text.size();
  char* const at = where == front ? begin(page) + gap : end(page) - behind;
  return static_cast<char*>(std::memcpy(at, text.c_str(), text.size() + zero));
}

// Characters of the set or not of the set, then any; numbers; strings that part somewhere or do
// not: whatever makes the routine look far, and stop anywhere.
operands scene(const routine& r, std::size_t length, std::size_t gap) {
  restore(noise);
  no_memory = below(8) == 0;
  const std::size_t from = below(200), taken = below(41), head = below(length + 1);
  const std::string members = letters.substr(from, taken),
                    others = letters.substr(from + taken, 1 + below(20));
  std::string text = some(head, below(2) == 0 ? members : others) + some(length - head, letters);
  if (r.how >= kind::int64)
    text = some(below(2) * below(40), " \t\n\v\f\r") + some(below(8) / 7, letters) +
           some(below(8) / 3, "+-+- ") + some(below(2) * below(20), "0") +
           some(length % 51, below(4) == 0 ? "9" : "0123456789") + some(below(2), letters) +
           some(below(2), "0123456789");

  const std::size_t part = below(2) == 0 ? text.size() : below(text.size() + 1);
  std::string other = r.how >= kind::set ? members : others;
  if (r.how == kind::order)
    other = text.substr(0, part) + (below(2) == 0 ? text.substr(part) : some(below(20), letters));
  const bool is_cut = r.how >= kind::limit && r.how <= kind::order && below(8) == 0;
  const bool writes = r.how == kind::field || r.how == kind::append || r.how == kind::copy;
  const place where = is_cut ? cut_off : below(2) == 0 ? front : back;

  operands o;
  o.string = put(here, text, gap, where);
  o.partner = put(there, other, below(64), writes ? front : where);
  const int sought = static_cast<unsigned char>(below(2) == 0 ? text[part] : letters[below(255)]);
  o.character = static_cast<int>(random_bits() << 8) | sought;
  const std::size_t size = text.size(), most = SIZE_MAX;
  const std::size_t counts[] = {0,         1,   part,     part + 1, size, size + 1,
                                size + 17, 300, most / 2, most - 1, most};
  o.count = counts[below(r.how == kind::field ? 8 : std::size(counts))];
  if (is_cut) o.count = r.how == kind::order ? std::min(size, other.size()) : size;
  return o;
}

// The answer by the registers of the interface, of which the preserved ones are looked at.
word by_registers(const routine& r, const operands& o) {
  register_file in = filled_registers(1);
  in.general[rax] = word(o.string) / 16 * 16;
  in.general[rcx] = word(o.string);
  in.general[rdx] = r.how <= kind::seek    ? word(o.string)
                    : r.how == kind::find  ? word(o.character)
                    : r.how == kind::limit ? o.count
                                           : word(o.partner);
  in.general[r8] = o.count;
  std::fill_n(in.vector[1].begin(), 16, r.instructions == sse2 ? o.character : 0);
  in.vector[1][0] = static_cast<std::uint8_t>(o.character);
  const register_file out = call_with_registers(reinterpret_cast<void (*)()>(r.address), in);
  for (const gpr i : {rax, rcx, rdx, r8, r9}) in.general[i] = out.general[i];
  std::copy_n(out.vector.begin(), 6, in.vector.begin());
  EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{});
  EXPECT_EQ(out.flags & 0x400, 0u);
  return out.general[rax];
}

// The bits of an answer that mean something.
word promised(kind how, word answer) {
  const int narrow = static_cast<int>(answer);
  if (how == kind::order) return word((narrow > 0) - (narrow < 0));
  return how == kind::int32 ? word(narrow) : answer;
}

// Leaves memory as the routine does, and returns what it returns.
word check(const routine& r, const operands& o) {
  // Whoever calls a tail has found that the first block does not answer the question.
  const char* const stop =
      r.how > kind::seek ? end(here) : strchrnul(o.string, r.how == kind::seek ? o.character : 0);
  const bool registers = !counted && below(2) == 0 && word(stop) / 16 != word(o.string) / 16;
  const std::string before = memory();
  called = true;
  const word answer = promised(r.how, registers ? by_registers(r, o) : r.inlined(o));
  const std::string after = memory();
  restore(before);
  EXPECT_EQ(answer, promised(r.how, r.expected(o)));
  called = false;
  EXPECT_TRUE(memory() == after) << "memory differs";
  return answer;
}

class String : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Routines, String, testing::ValuesIn(routines), name_of_row);

TEST_P(String, IsTheCLibrarysAtEveryLengthAndPlace) {
  if (!runs[GetParam().instructions]) GTEST_SKIP() << "this processor cannot run it";
  for (std::size_t length = 0; length <= 200; ++length)
    for (std::size_t gap = 0; gap < 64; ++gap) {
      operands o = scene(GetParam(), length, gap);
      bool more = check(GetParam(), o) != 0 && GetParam().how == kind::tokens;
      o.string = nullptr;
      while (more)  // the levels share what is left of the string
        for (const routine& r : routines)
          if (r.how == kind::tokens && runs[r.instructions]) more = check(r, o) != 0;
      ASSERT_FALSE(HasFailure()) << "length " << length << ", gap " << gap;
    }
}

TEST(Tokens, NothingIsReadBehindTheLast) {
  char text[] = "last\0more";
  EXPECT_EQ(zorvac_sse2_strtok(text, ","), text);
  text[4] = '-';
  EXPECT_EQ(zorvac_sse2_strtok(nullptr, ","), nullptr);
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t);
void* __wrap_malloc(std::size_t bytes) {
  return !called ? __real_malloc(bytes) : no_memory ? nullptr : end(there) - bytes;
}
}

}  // namespace zorvac::test
