// Compares every routine with the C library's, on the same bytes at the same addresses: the results
// and all memory must be the same. Strings lie at every place of a block, next to unreadable pages
// and across the end of a page. Named scenes come first, then a campaign with every length.
//
// A routine is called by the inline function of the header, or with the registers of its interface.
// The second way, in every other case of the campaign, also checks the registers that must be
// preserved.
#include "zorvac/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/campaign.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

using word = std::uint64_t;

// ---- Memory -------------------------------------------------------------------------------------

// The most bytes of a field, and of malloc.
constexpr std::size_t page_bytes = 4096, most_room = 300;

// Two pages between unreadable ones.
struct area {
  const char* name;
  std::span<char> block = {};  // the bytes of the case; the rest is random
  guarded_block pages{2 * page_bytes};

  [[nodiscard]] char* begin() const { return reinterpret_cast<char*>(pages.begin()); }
  [[nodiscard]] char* end() const { return reinterpret_cast<char*>(pages.end()); }
  [[nodiscard]] std::string contents() const { return {begin(), end()}; }
  void set_contents(const char* all) const { std::memcpy(begin(), all, pages.size()); }
};

// All memory of a case. malloc gives a routine the end of the partner's pages.
area string_area{"string"}, partner_area{"partner"};
bool routine_runs = false;

// ---- Routines -----------------------------------------------------------------------------------

// The operands, of which a routine gets some: a string; its partner, which is a destination,
// another string or a set; a character; a count.
struct operands {
  char *string, *partner;
  int character;
  std::size_t count;
};
// The kinds of routines, by their operands. `tail` and `seek` are the rest of a scan whose first
// block has already been examined.
// clang-format off
enum class kind {
  tail, seek, find, limit, field, append, order, copy, concat, set, tokens, int64, int32
};
// clang-format on
bool stops_at_count(kind how) {
  return how == kind::limit || how == kind::field || how == kind::append || how == kind::order;
}

enum instruction_set { sse2, ssse3, sse4 };
const bool runs[] = {true, __builtin_cpu_supports("ssse3") != 0,
                     __builtin_cpu_supports("sse4.2") != 0};
struct routine {
  instruction_set instructions;
  const char* name;
  void* address;
  kind how;
  word (*inlined)(const operands&);   // the header's function
  word (*expected)(const operands&);  // the C library's
};

// Routines that the C library does not have, or that differ from the C library's.
char* strend(const char* s) { return std::strchr(const_cast<char*>(s), 0); }
char* strdup(const char* s) {  // uses the malloc below
  void* const twin = std::malloc(std::strlen(s) + 1);
  return twin == nullptr ? nullptr : std::strcpy(static_cast<char*>(twin), s);
}
// Modulo 2^64. strtoll stops at its limits instead.
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
#define ROUTINE(level, op, how, ...)                                              \
  {level, #level #op, reinterpret_cast<void*>(&__zorva_##level##_##op), kind::how, \
   [](const operands& o) { return word(zorvac_##level##_##op(__VA_ARGS__)); },    \
   [](const operands& o) { return word(op(__VA_ARGS__)); }}
#define OF_ALL_LEVELS(level)                                         \
  ROUTINE(level, strcpy, copy, o.partner, o.string),                 \
  ROUTINE(level, stpcpy, copy, o.partner, o.string),                 \
  ROUTINE(level, strncpy, field, o.partner, o.string, o.count),      \
  ROUTINE(level, stpncpy, field, o.partner, o.string, o.count),      \
  ROUTINE(level, strrchr, find, o.string, o.character)
#define OF_TWO_LEVELS(level)                                         \
  OF_ALL_LEVELS(level),                                              \
  ROUTINE(level, strlen, tail, o.string),                            \
  ROUTINE(level, strend, tail, o.string),                            \
  ROUTINE(level, strchr, seek, o.string, o.character),               \
  ROUTINE(level, strnlen, limit, o.string, o.count),                 \
  ROUTINE(level, strdup, copy, o.string),                            \
  ROUTINE(level, strcat, concat, o.partner, o.string),               \
  ROUTINE(level, strncat, append, o.partner, o.string, o.count),     \
  ROUTINE(level, strncmp, order, o.string, o.partner, o.count),      \
  ROUTINE(level, strspn, set, o.string, o.partner),                  \
  ROUTINE(level, strcspn, set, o.string, o.partner),                 \
  ROUTINE(level, strpbrk, set, o.string, o.partner),                 \
  ROUTINE(level, strtok, tokens, o.string, o.partner)
const routine routines[] = {
    OF_TWO_LEVELS(sse2),
    OF_ALL_LEVELS(ssse3),
    OF_TWO_LEVELS(sse4),
    ROUTINE(sse4, atoi, int32, o.string),
    ROUTINE(sse4, atol, int64, o.string),
    ROUTINE(sse4, atoll, int64, o.string)};
// clang-format on

// ---- Scenes -------------------------------------------------------------------------------------

// A text, and where it lies in its two pages:
//
//   front    `gap` bytes after the unreadable page
//   back     `gap` bytes before the unreadable page
//   across   `gap` bytes before the end of the first page, the rest after it
//   cut_off  as `back`, but without a terminating zero: the count ends it
enum place { front, back, across, cut_off };
struct part {
  std::string text;
  place where = back;
  std::size_t gap = 0;
  [[nodiscard]] std::size_t bytes() const { return text.size() + (where == cut_off ? 0 : 1); }
};
struct scene {
  std::string name;
  part string;
  part partner = {};  // a set, another string, or the old contents of a destination
  int character = 0;
  std::size_t count = most_room;
};
std::ostream& operator<<(std::ostream& out, const scene& s) {
  return out << s.name << ", gap " << s.string.gap << "\n  string "
             << testing::PrintToString(s.string.text) << "\n  partner "
             << testing::PrintToString(s.partner.text) << "\n  character " << s.character
             << ", count " << s.count;
}

const std::string forty = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMN";
const std::string white_space = " \t\n\v\f\r", digits = "0123456789";
const std::string letters = [] {  // all bytes but zero; no two consecutive values are adjacent
  std::string all(255, 0);
  for (std::size_t i = 0; i < 255; ++i) all[i] = static_cast<char>(i * 101 % 255 + 1);
  return all;
}();
std::string many(std::size_t count) { return letters.substr(0, count); }

// Every routine runs in each of them, with the string at 64 places.
// clang-format off
const scene scenes[] = {
    {.name = "Empty", .string = {""}, .character = 'a'},
    {.name = "StopsInTheFirstBlock", .string = {"a,b"}, .partner = {","}, .character = ','},
    {.name = "LiesAgainstTheFirstPage", .string = {"ab", front}, .partner = {"b", front}},
    {.name = "EndsInFourBlocks", .string = {many(79)}},
    {.name = "CrossesAPageEnd", .string = {letters + letters, across}},

    {.name = "LimitIsZero", .string = {"", cut_off}, .partner = {"", cut_off}, .count = 0},
    {.name = "LimitIsOneShort", .string = {forty}, .partner = {forty + "x"}, .count = 39},
    {.name = "LimitEqualsLength", .string = {forty}, .partner = {forty + "x", back, 64},
     .count = 40},
    {.name = "LimitIsOneMore", .string = {forty}, .partner = {forty + "x"}, .count = 41},
    {.name = "LimitIsTheLargestNumber", .string = {forty}, .partner = {forty}, .count = SIZE_MAX},
    {.name = "LimitIsSevenMore", .string = {forty}, .partner = {forty + "x"}, .count = 47},
    {.name = "LimitEndsIt", .string = {forty, cut_off}, .partner = {forty, cut_off}, .count = 40},
    {.name = "LimitEndsFourBlocks", .string = {many(96), cut_off}, .partner = {many(96)},
     .count = 96},
    {.name = "LimitEndsEightBlocks", .string = {many(160), cut_off}, .partner = {many(160)},
     .count = 160},

    {.name = "CharacterComesOften", .string = {"-a-" + forty + "-z"}, .character = '-'},
    {.name = "CharacterIsTheTerminator", .string = {forty}, .character = 0},
    {.name = "CharacterIsBehindTheEnd", .string = {{"ab\0x", 4}}, .character = 'x'},

    {.name = "PartnerCrossesAPageEnd", .string = {forty, across}, .partner = {forty, across, 1}},
    {.name = "TooLargeForMalloc", .string = {letters + letters}},

    {.name = "SetFillsABlock", .string = {forty + "!"}, .partner = {"!0123456789?-+()"}},
    {.name = "SetExceedsABlock", .string = {forty + "!"}, .partner = {"0123456789?-+()=!"}},
    {.name = "TokensHaveSeparatorsAround", .string = {",;a,,b;c;,"}, .partner = {",;"}},

    {.name = "NumberFollowsManySpaces", .string = {white_space + white_space + white_space + "+7"}},
    {.name = "NumberStopsBelowDigits", .string = {"12/3"}},
    {.name = "NumberStopsAboveDigits", .string = {"12:3"}},
    {.name = "NumberHasSixteenDigits", .string = {"1234567890123456"}},
    {.name = "NumberHasSeventeenDigits", .string = {"-12345678901234567x"}},
    {.name = "NumberHasFortyDigits", .string = {digits + digits + digits + digits}},
    {.name = "NumberIsTheLeastLong", .string = {"-9223372036854775808"}},
    {.name = "NumberOverflows64Bits", .string = {"-18446744073709551621"}},
};
// clang-format on

// ---- The campaign -------------------------------------------------------------------------------

constexpr std::size_t lengths = 201, gaps = 64;

std::string some(case_random& random, std::size_t length, const std::string& alphabet) {
  std::string text(alphabet.empty() ? 0 : length, 0);
  for (char& c : text) c = alphabet[random.below(alphabet.size())];
  return text;
}
case_random noise_random(0);
const std::string noise = some(noise_random, 4 * page_bytes, letters + '\0');

// White space, another character, signs, digits, characters after them: each of these is optional.
std::string drawn_number(case_random& random, std::size_t length) {
  std::string text;
  if (random.one_in(2)) text += some(random, random.below(41), white_space);
  if (random.one_in(8)) text += some(random, 1, letters);
  text += some(random, random.below(3), "+-+- ");
  text += some(random, length % 51, random.one_in(4) ? "9" : digits);
  text += some(random, random.below(2), letters);
  return text + some(random, random.below(2), digits);
}

// A length, a place in a block, and characters that make the routine read far and stop anywhere:
// those of a set or of another one, then any.
scene drawn_scene(const routine& r, std::uint64_t seed) {
  case_random random(seed);
  const std::size_t length = seed / gaps % lengths, head = random.below(length + 1);
  const std::size_t from = random.below(200), taken = random.below(41);
  const std::string members = letters.substr(from, taken);
  const std::string others = letters.substr(from + taken, 1 + random.below(20));
  std::string text = some(random, head, random.one_in(2) ? members : others);
  text += some(random, length - head, letters);
  if (r.how == kind::int64 || r.how == kind::int32) text = drawn_number(random, length);
  const std::size_t size = text.size();
  const std::size_t stop = random.one_in(2) ? size : random.below(size + 1);

  std::string partner = others;
  if (r.how == kind::set || r.how == kind::tokens) partner = members;
  if (r.how == kind::order)
    partner = text.substr(0, stop) + some(random, random.below(20), letters);

  scene s{.name = "seed " + std::to_string(seed), .string = {text}, .partner = {partner}};
  const std::size_t places = stops_at_count(r.how) ? 4 : 3;
  s.string.where = static_cast<place>(random.below(places));
  s.string.gap = seed % gaps;
  s.partner.where = static_cast<place>(random.below(places));
  s.partner.gap = random.one_in(2) ? 0 : random.below(64);

  const char sought = random.one_in(2) ? text[stop] : letters[random.below(255)];
  s.character = static_cast<int>(random() << 8) | static_cast<unsigned char>(sought);
  const std::size_t counts[] = {0, 1, stop, stop + 1, size, size + 1, 300, SIZE_MAX / 2, SIZE_MAX};
  s.count = counts[random.below(std::size(counts))];
  if (s.string.where == cut_off) s.count = std::min(s.count, size);
  if (s.partner.where == cut_off) s.count = std::min(s.count, partner.size());
  return s;
}

// ---- Calls --------------------------------------------------------------------------------------

// The bytes that the partner needs. A destination has exactly the bytes that are written.
std::size_t partner_bytes(kind how, const scene& s) {
  const std::size_t length = std::strlen(s.string.text.c_str());
  if (how == kind::field) return s.count;
  if (how == kind::copy) return length + 1;
  if (how == kind::concat) return s.partner.text.size() + length + 1;
  if (how == kind::append) return s.partner.text.size() + std::min(length, s.count) + 1;
  return s.partner.bytes();
}

void put(area& a, const part& p, std::size_t bytes) {
  char* at = a.end() - bytes - p.gap;
  if (p.where == front) at = a.begin() + p.gap;
  if (p.where == across) at = a.begin() + page_bytes - p.gap;
  std::memcpy(at, p.text.c_str(), std::min(bytes, p.text.size() + 1));
  a.block = {at, bytes};
}

operands lay_out(const routine& r, const scene& s) {
  string_area.set_contents(noise.data());
  partner_area.set_contents(noise.data() + 2 * page_bytes);
  put(string_area, s.string, s.string.bytes());
  put(partner_area, s.partner, partner_bytes(r.how, s));
  return {string_area.block.data(), partner_area.block.data(), s.character, s.count};
}

// A tail may be called only if the first block does not give the result.
bool registers_can_ask(const routine& r, const operands& o) {
  if (r.how != kind::tail && r.how != kind::seek) return true;
  const char* const answer = strchrnul(o.string, r.how == kind::seek ? o.character : 0);
  return word(answer) / 16 != word(o.string) / 16;
}

word second_input(const routine& r, const operands& o) {
  if (r.how == kind::tail || r.how == kind::seek) return word(o.string);
  if (r.how == kind::find) return word(o.character);
  return r.how == kind::limit ? o.count : word(o.partner);
}

// The result of a call with the registers of the interface. Checks the preserved ones.
word by_registers(const routine& r, const operands& o) {
  register_file in = filled_registers(1);
  in.general[rax] = word(o.string) / 16 * 16;
  in.general[rcx] = word(o.string);
  in.general[rdx] = second_input(r, o);
  in.general[r8] = o.count;
  std::fill_n(in.vector[1].begin(), 16, r.instructions == sse2 ? o.character : 0);
  in.vector[1][0] = static_cast<std::uint8_t>(o.character);
  const register_file out = call_with_registers(reinterpret_cast<void (*)()>(r.address), in);
  for (const gpr i : {rax, rcx, rdx, r8, r9}) in.general[i] = out.general[i];
  std::copy_n(out.vector.begin(), 6, in.vector.begin());
  EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{});
  return out.general[rax];
}

// The bits of a result that are defined, in a readable form.
std::string in_words(kind how, word answer) {
  const int narrow = static_cast<int>(answer);
  if (how == kind::int32) return std::to_string(narrow);
  if (how == kind::order) return std::to_string((narrow > 0) - (narrow < 0));
  for (const area* a : {&string_area, &partner_area}) {
    const word place = answer - word(a->block.data());
    if (place <= a->block.size()) return "byte " + std::to_string(place) + " of the " + a->name;
  }
  return std::to_string(static_cast<long>(answer));
}

// Compares an area, as the C library's routine left it, with what our routine left there.
void expect_contents(const area& a, const std::string& seen) {
  const auto before = static_cast<std::size_t>(a.block.data() - a.begin());
  const std::size_t behind = seen.size() - before - a.block.size();
  EXPECT_BYTES(bytes(seen.data(), seen.size(), before, behind), a.contents()) << "the " << a.name;
}

// Compares the memory and the result of a routine with those of the C library's. Leaves the memory
// as the C library's routine does, and returns its result.
word check(const routine& r, const operands& o, bool registers) {
  const std::string string = string_area.contents(), partner = partner_area.contents();
  routine_runs = true;
  const word seen = registers ? by_registers(r, o) : r.inlined(o);
  const std::string string_after = string_area.contents(), partner_after = partner_area.contents();
  string_area.set_contents(string.data());
  partner_area.set_contents(partner.data());
  const word expected = r.expected(o);
  routine_runs = false;
  EXPECT_EQ(in_words(r.how, seen), in_words(r.how, expected)) << "as the result";
  expect_contents(string_area, string_after);
  expect_contents(partner_area, partner_after);
  return expected;
}

class String : public testing::TestWithParam<routine> {
 protected:
  void SetUp() override {
    if (!runs[GetParam().instructions]) GTEST_SKIP() << "this processor cannot run it";
  }

  // Takes tokens until there are none, with all levels in turn, because they share the rest of the
  // string.
  void play(const scene& s, bool registers) {
    const routine& r = GetParam();
    scene_ = s;
    if (r.how == kind::field) scene_.count = std::min(s.count, most_room);
    operands o = lay_out(r, scene_);
    registers = registers && !counted && registers_can_ask(r, o);
    bool more = check(r, o, registers) != 0 && r.how == kind::tokens;
    o.string = nullptr;
    while (more)
      for (const routine& next : routines)
        if (next.how == kind::tokens && runs[next.instructions])
          more = check(next, o, registers) != 0;
    ASSERT_FALSE(HasFailure()) << scene_ << (registers ? "\n  by registers" : "");
  }

  scene scene_{};  // the current one
  fault_report report_{[this] { return testing::PrintToString(scene_); }};
};
void PrintTo(const routine& r, std::ostream* out) { *out << r.name; }
INSTANTIATE_TEST_SUITE_P(Routines, String, testing::ValuesIn(routines), name_of_row);

TEST_P(String, MatchesTheCLibraryInNamedScenes) {
  for (scene s : scenes) {
    if (s.string.where == cut_off && !stops_at_count(GetParam().how)) continue;
    for (s.string.gap = 0; s.string.gap < gaps && !HasFailure(); ++s.string.gap)
      play(s, /*registers=*/false);
  }
}

TEST_P(String, MatchesTheCLibraryAtEveryLengthAndPlace) {
  const auto [first, end] = seeds_of_cases(lengths * gaps);
  for (std::uint64_t seed = first; seed < end && !HasFailure(); ++seed)
    play(drawn_scene(GetParam(), seed), /*registers=*/seed % 2 != 0);
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
void* __wrap_malloc(std::size_t size) {
  if (!routine_runs) return __real_malloc(size);
  return size > most_room ? nullptr : partner_area.end() - size;
}
}

}  // namespace zorvac::test
