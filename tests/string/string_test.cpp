// Every routine against the C library's, on the same bytes at the same addresses: the answers must
// be the same, and so must be all memory. Strings lie at every place of a block, against unreadable
// pages and across the end of a page. Named scenes first; then a campaign over every length.
//
// A routine is called by the inline function of the header, and by the registers of its interface,
// where those that are to be preserved are looked at too.
#include "zorvac/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/bytes.h"
#include "support/campaign.h"
#include "support/guard_pages.h"
#include "support/masks.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

using word = std::uint64_t;
using namespace std::string_literals;

// ---- Memory -------------------------------------------------------------------------------------

// All memory there is: two pages for the string and two for its partner, each between unreadable
// ones. What malloc gives a routine lies at the end of the partner's, unless there is no memory.
constexpr std::size_t page_bytes = 4096;
const guarded_block string_area(2 * page_bytes), partner_area(2 * page_bytes);
bool routine_runs = false, no_memory = false;
char* begin(const guarded_block& area) { return reinterpret_cast<char*>(area.begin()); }
char* end(const guarded_block& area) { return reinterpret_cast<char*>(area.end()); }

struct contents {
  std::string of_string, of_partner;
};
contents memory() {
  return {{begin(string_area), end(string_area)}, {begin(partner_area), end(partner_area)}};
}
void restore(const contents& all) {
  std::memcpy(begin(string_area), all.of_string.data(), string_area.size());
  std::memcpy(begin(partner_area), all.of_partner.data(), partner_area.size());
}

// ---- Routines -----------------------------------------------------------------------------------

// What the routines get, each some of it: a string; its partner, which is a destination, another
// string or a set; a character; a count.
struct operands {
  char *string, *partner;
  int character;
  std::size_t count;
};
// What a routine takes. `tail` and `seek` are the rest of a scan whose first block has been looked
// at.
// clang-format off
enum class kind {
  tail, seek, find, limit, field, append, order, copy, concat, duplicate, set, tokens, int64, int32
};
// clang-format on
bool stops_at_count(kind how) {
  return how == kind::limit || how == kind::field || how == kind::append || how == kind::order;
}
bool is_number(kind how) { return how == kind::int64 || how == kind::int32; }

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
  ROUTINE(level, strdup, duplicate, o.string),                       \
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

// Where something lies in its two pages, and what `gap` counts there.
enum place {
  front,    // so many bytes behind the unreadable page
  back,     // so many bytes before the unreadable page
  across,   // so many bytes before the end of the first page, the rest behind it
  cut_off,  // against the unreadable page, without a terminating zero: the count ends it
};
struct scene {
  std::string name;
  std::string text;          // the string
  std::string partner = {};  // a set, another string, or what a destination holds already
  int character = 0;
  std::size_t count = 0;
  place where = back;
  std::size_t gap = 0;
  place partner_where = front;
  std::size_t partner_gap = 0;
  bool memory_is_left = true;  // for malloc
};
std::ostream& operator<<(std::ostream& out, const scene& s) {
  constexpr const char* places[] = {"front", "back", "across", "cut off"};
  return out << s.name << "\n  string, " << s.text.size() << " bytes, " << places[s.where] << ' '
             << s.gap << ": " << testing::PrintToString(s.text) << "\n  partner, "
             << s.partner.size() << " bytes, " << places[s.partner_where] << ' ' << s.partner_gap
             << ": " << testing::PrintToString(s.partner) << "\n  character " << s.character
             << ", count " << s.count << (s.memory_is_left ? "" : ", no memory");
}

std::string some(case_random& random, std::size_t length, const std::string& alphabet) {
  std::string text(alphabet.empty() ? 0 : length, 0);
  for (char& c : text) c = alphabet[random.below(alphabet.size())];
  return text;
}
const std::string letters = [] {  // all that are not zero, no neighbours side by side
  std::string all(255, 0);
  for (std::size_t i = 0; i < 255; ++i) all[i] = static_cast<char>(i * 101 % 255 + 1);
  return all;
}();
const contents noise = [] {
  case_random random(0);
  return contents{some(random, string_area.size(), letters + '\0'),
                  some(random, partner_area.size(), letters + '\0')};
}();

const std::string digits = "0123456789", white_space = " \t\n\v\f\r";
const std::string a_z = "abcdefghijklmnopqrstuvwxyz", forty = a_z + "ABCDEFGHIJKLMN";
constexpr std::size_t most = SIZE_MAX;

// clang-format off
const scene scenes[] = {
    {.name = "Empty", .text = "", .partner = "", .character = 'a', .count = 1},
    {.name = "OneCharacter", .text = "a", .partner = "a", .character = 'a', .count = 1},
    {.name = "StopsInTheFirstBlock", .text = "a,b", .partner = ",", .character = ',', .count = 2},
    {.name = "LiesAgainstTheFirstPage", .text = forty, .partner = "N", .count = 50, .where = front},
    {.name = "CrossesAPageEnd", .text = forty + forty, .count = 80, .where = across},
    {.name = "LeavesAPageAfterManyBlocks", .text = letters + letters, .count = 600,
     .where = across},

    {.name = "LimitIsZero", .text = forty, .partner = "abd", .count = 0},
    {.name = "LimitIsOneShort", .text = forty, .partner = forty + "x", .count = 39},
    {.name = "LimitEqualsLength", .text = forty, .partner = forty + "x", .count = 40},
    {.name = "LimitIsOneMore", .text = forty, .partner = forty + "x", .count = 41},
    {.name = "LimitLeavesBlocksToFill", .text = forty, .partner = forty, .count = 200},
    {.name = "LimitIsTheLargestNumber", .text = forty, .partner = forty, .count = most},
    {.name = "LimitIsOnlyNegative", .text = forty, .partner = "abd", .count = most / 2 + 1},
    {.name = "LimitEndsIt", .text = forty, .partner = forty, .count = 40, .where = cut_off},
    {.name = "LimitEndsASingleByte", .text = "a", .partner = "a", .count = 1, .where = cut_off},

    {.name = "CharacterIsMissing", .text = forty, .character = '?'},
    {.name = "CharacterIsLast", .text = forty, .character = 'N'},
    {.name = "CharacterComesOften", .text = "-a-" + forty + "-" + forty + "-z", .character = '-'},
    {.name = "CharacterIsTheTerminator", .text = forty, .character = 0},
    {.name = "CharacterHasHighBits", .text = forty, .character = 0x7fff'ff00 | 'k'},
    {.name = "CharacterIsNegative", .text = forty + '\x80', .character = -128},
    {.name = "CharacterIsBehindTheEnd", .text = a_z + "\0xy"s, .character = 'x', .count = 28},

    {.name = "DestinationEndsAtThePage", .text = forty, .partner = a_z, .count = 40,
     .partner_where = back},
    {.name = "DestinationCrossesAPageEnd", .text = forty, .partner = forty, .count = 90,
     .partner_where = across},
    {.name = "NoMemoryIsLeft", .text = forty, .memory_is_left = false},

    {.name = "OtherIsShorter", .text = forty, .partner = a_z, .count = 300},
    {.name = "OtherIsLonger", .text = a_z, .partner = forty, .count = 300},
    {.name = "OtherDiffersAtTheLimit", .text = a_z + "a", .partner = a_z + "b", .count = 27},
    {.name = "OtherDiffersBehindTheLimit", .text = a_z + "a", .partner = a_z + "b", .count = 26},
    {.name = "OtherIsGreaterUnsigned", .text = a_z + '\x7f', .partner = a_z + '\x80', .count = 99},
    {.name = "OtherDiffersBehindTheEnd", .text = a_z + "\0a"s, .partner = a_z + "\0b"s,
     .count = 28},
    {.name = "OtherCrossesAPageEnd", .text = forty, .partner = forty, .count = 40,
     .where = across, .partner_where = across, .partner_gap = 16},

    {.name = "SetIsEmpty", .text = forty, .partner = ""},
    {.name = "SetHasAllOfIt", .text = forty + forty, .partner = forty},
    {.name = "SetHasNoneOfIt", .text = forty, .partner = digits},
    {.name = "SetFillsABlock", .text = forty + "!" + forty, .partner = "!0123456789?-+()"},
    {.name = "SetExceedsABlock", .text = forty + "!" + forty, .partner = "0123456789?-+()=!"},
    {.name = "SetHasEveryByte", .text = forty, .partner = letters},
    {.name = "SetEndsAtThePage", .text = forty, .partner = "xyz", .partner_where = back},
    {.name = "SetCrossesAPageEnd", .text = forty, .partner = "xyz", .partner_where = across,
     .partner_gap = 1},
    {.name = "TokensHaveSeparatorsAround", .text = ",;a,,b;c;,", .partner = ",;"},
    {.name = "TokensAreSeparatorsOnly", .text = ",,;;,,", .partner = ",;"},

    {.name = "NumberFollowsEverySpace", .text = white_space + "42"},
    {.name = "NumberFollowsManySpaces", .text = std::string(33, ' ') + "-42"},
    {.name = "NumberIsPositive", .text = "+42"},
    {.name = "NumberHasASignWithoutDigits", .text = "-"},
    {.name = "NumberHasASignBeforeALetter", .text = "+x1"},
    {.name = "NumberHasTwoSigns", .text = "+-1"},
    {.name = "NumberHasASpaceAfterItsSign", .text = "- 1"},
    {.name = "NumberIsBehindALetter", .text = "x12"},
    {.name = "NumberStopsBelowDigits", .text = "12/3"},
    {.name = "NumberStopsAboveDigits", .text = "12:3"},
    {.name = "NumberHasEightDigits", .text = "98765432"},
    {.name = "NumberHasTenDigits", .text = "2147483647"},
    {.name = "NumberHasSixteenDigits", .text = "-9876543210987654"},
    {.name = "NumberHasSeventeenDigits", .text = "98765432109876543"},
    {.name = "NumberHasManyZeros", .text = std::string(40, '0') + "7"},
    {.name = "NumberOverflowsInt", .text = "4294967301"},
    {.name = "NumberIsTheLeastLong", .text = "-9223372036854775808"},
    {.name = "NumberOverflowsLong", .text = "9223372036854775808"},
    {.name = "NumberOverflows64Bits", .text = "-18446744073709551621"},
    {.name = "NumberHasFiftyNines", .text = std::string(50, '9')},
};
// clang-format on

// ---- The campaign -------------------------------------------------------------------------------

constexpr std::size_t lengths = 201, gaps = 64;

// White space, something that is none, signs, zeros, digits, something behind them: each or not.
std::string drawn_number(case_random& random, std::size_t length) {
  const auto up_to = [&random](std::size_t largest) { return random.below(largest + 1); };
  std::string text;
  if (random.one_in(2)) text += some(random, up_to(40), white_space);
  if (random.one_in(8)) text += some(random, 1, letters);
  text += some(random, up_to(2), "+-+- ");
  if (random.one_in(2)) text += some(random, up_to(20), "0");
  text += some(random, length % 51, random.one_in(4) ? "9" : digits);
  text += some(random, up_to(1), letters);
  text += some(random, up_to(1), digits);
  return text;
}

// A string equal to the text, or one that parts from it somewhere.
std::string drawn_other(case_random& random, const std::string& text, std::size_t part) {
  if (random.one_in(2)) return text;
  return text.substr(0, part) + some(random, random.below(20), letters);
}

// A length, a place in a block, and whatever makes the routine look far, and stop anywhere:
// characters of a set or of another, then any.
scene drawn_scene(const routine& r, std::uint64_t seed) {
  case_random random(seed);
  const std::size_t length = seed / gaps % lengths, head = random.below(length + 1);
  const std::size_t from = random.below(200), taken = random.below(41);
  const std::string members = letters.substr(from, taken);
  const std::string others = letters.substr(from + taken, 1 + random.below(20));
  std::string words = some(random, head, random.one_in(2) ? members : others);
  words += some(random, length - head, letters);

  scene s{.name = "seed " + std::to_string(seed),
          .text = is_number(r.how) ? drawn_number(random, length) : words};
  const std::size_t size = s.text.size();
  const std::size_t part = random.one_in(2) ? size : random.below(size + 1);
  s.partner = others;
  if (r.how == kind::set || r.how == kind::tokens) s.partner = members;
  if (r.how == kind::order) s.partner = drawn_other(random, s.text, part);

  s.character = static_cast<int>(random() << 8);
  s.character |=
      static_cast<unsigned char>(random.one_in(2) ? s.text[part] : letters[random.below(255)]);
  const std::size_t counts[] = {0,         1,   part,     part + 1, size, size + 1,
                                size + 17, 300, most / 2, most - 1, most};
  s.count = counts[random.below(std::size(counts))];

  s.where = static_cast<place>(random.below(3));
  s.gap = seed % gaps;
  s.partner_where = static_cast<place>(random.below(3));
  s.partner_gap = random.one_in(4) ? 0 : random.below(64);
  if (stops_at_count(r.how) && random.one_in(8)) {
    s.where = cut_off;
    s.count = size;
  }
  s.memory_is_left = !random.one_in(8);
  return s;
}

// ---- Calls --------------------------------------------------------------------------------------

// A scene in memory: what is passed, and where its two parts lie.
struct stage {
  operands passed;
  std::span<const char> string, partner;
};

// Puts a text, which takes `bytes` with its terminating zero or without.
std::span<char> put(const guarded_block& area, const std::string& text, std::size_t bytes,
                    place where, std::size_t gap) {
  char* at = end(area) - bytes;
  if (where == front) at = begin(area) + gap;
  if (where == back) at -= gap;
  if (where == across) at = begin(area) + page_bytes - gap;
  std::memcpy(at, text.c_str(), std::min(bytes, text.size() + 1));
  return {at, bytes};
}

// The bytes that the partner needs: a destination no more than is written.
std::size_t partner_bytes(kind how, const scene& s) {
  const std::size_t length = std::strlen(s.text.c_str());
  if (how == kind::field) return s.count;
  if (how == kind::copy) return length + 1;
  if (how == kind::concat) return s.partner.size() + length + 1;
  if (how == kind::append) return s.partner.size() + std::min(length, s.count) + 1;
  return s.partner.size() + 1;
}

stage lay_out(const routine& r, scene s) {
  restore(noise);
  no_memory = !s.memory_is_left;
  const bool is_cut = s.where == cut_off;
  std::size_t needed = partner_bytes(r.how, s);
  if (is_cut && r.how == kind::order) {
    s.partner_where = cut_off;
    s.count = std::min(s.count, s.partner.size());
    --needed;
  }
  const auto string = put(string_area, s.text, s.text.size() + (is_cut ? 0 : 1), s.where, s.gap);
  const auto partner = put(partner_area, s.partner, needed, s.partner_where, s.partner_gap);
  return {{string.data(), partner.data(), s.character, s.count}, string, partner};
}

// Whoever calls a tail has found that the first block does not answer the question.
bool registers_can_ask(const routine& r, const operands& o) {
  if (counted) return false;
  if (r.how != kind::tail && r.how != kind::seek) return true;
  const char* const answer = strchrnul(o.string, r.how == kind::seek ? o.character : 0);
  return word(answer) / 16 != word(o.string) / 16;
}

word second_input(const routine& r, const operands& o) {
  if (r.how == kind::tail || r.how == kind::seek) return word(o.string);
  if (r.how == kind::find) return word(o.character);
  return r.how == kind::limit ? o.count : word(o.partner);
}

// The answer by the registers of the interface, of which the preserved ones are looked at.
word by_registers(const routine& r, const operands& o) {
  static const register_file filled = filled_registers(1);
  register_file in = filled;
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
  EXPECT_EQ(out.flags & flags_bit::direction, 0u);
  return out.general[rax];
}

// The bits of an answer that mean something.
word promised(kind how, word answer) {
  const int narrow = static_cast<int>(answer);
  if (how == kind::order) return word((narrow > 0) - (narrow < 0));
  return how == kind::int32 ? word(narrow) : answer;
}

// An answer, as a reader wants to see it.
std::string told(word answer, const stage& s) {
  const auto from = [answer](const char* start) { return std::to_string(answer - word(start)); };
  if (answer - word(s.string.data()) <= s.string.size())
    return "byte " + from(s.string.data()) + " of the string";
  if (answer - word(s.partner.data()) <= s.partner.size())
    return "byte " + from(s.partner.data()) + " of the partner";
  return std::to_string(static_cast<long>(answer));
}

// An area as the C library's routine left it, against what was seen before.
void expect_area(const char* where, const guarded_block& area, std::span<const char> block,
                 const std::string& seen) {
  const auto before = static_cast<std::size_t>(block.data() - begin(area));
  const std::size_t behind = area.size() - before - block.size();
  EXPECT_BYTES(bytes(seen.data(), seen.size(), before, behind), bytes(area.begin(), area.size()))
      << where;
}

// Leaves memory as the routine does, and returns what it returns.
enum class way { inline_function, registers };
word check(const routine& r, const stage& s, const operands& o, way how) {
  const contents before = memory();
  routine_runs = true;
  const word seen = how == way::registers ? by_registers(r, o) : r.inlined(o);
  routine_runs = false;
  const contents after = memory();
  restore(before);
  routine_runs = true;
  const word expected = r.expected(o);
  routine_runs = false;
  EXPECT_EQ(told(promised(r.how, seen), s), told(promised(r.how, expected), s)) << "as the answer";
  expect_area("around the string", string_area, s.string, after.of_string);
  expect_area("around the partner", partner_area, s.partner, after.of_partner);
  return expected;
}

// One scene for a routine. Tokens are taken until there are none, by all levels in turn: they share
// what is left of the string.
void expect_the_c_librarys(const routine& r, const scene& c, way wanted) {
  const stage s = lay_out(r, c);
  operands o = s.passed;
  const way how = registers_can_ask(r, o) ? wanted : way::inline_function;
  bool more = check(r, s, o, how) != 0 && r.how == kind::tokens;
  o.string = nullptr;
  while (more)
    for (const routine& next : routines)
      if (next.how == kind::tokens && runs[next.instructions]) more = check(next, s, o, how) != 0;
}

class String : public testing::TestWithParam<routine> {
 protected:
  void SetUp() override {
    if (!runs[GetParam().instructions]) GTEST_SKIP() << "this processor cannot run it";
  }
  void play(scene s, way how) {
    if (GetParam().how == kind::field) s.count = std::min<std::size_t>(s.count, 300);  // is filled
    scene_ = std::move(s);
    way_ = how;
    expect_the_c_librarys(GetParam(), scene_, how);
    ASSERT_FALSE(HasFailure()) << case_at_hand();
  }

 private:
  [[nodiscard]] std::string case_at_hand() const {
    std::ostringstream text;
    text << GetParam().name << (way_ == way::registers ? " by registers, " : " inline, ") << scene_;
    return text.str();
  }
  scene scene_{};
  way way_{};
  fault_report report_{[this] { return case_at_hand(); }};
};
void PrintTo(const routine& r, std::ostream* out) { *out << r.name; }
INSTANTIATE_TEST_SUITE_P(Routines, String, testing::ValuesIn(routines), name_of_row);

TEST_P(String, IsTheCLibrarysInNamedScenes) {
  for (scene s : scenes) {
    const bool is_cut = s.where == cut_off;
    if (is_cut && !stops_at_count(GetParam().how)) continue;
    for (s.gap = 0; s.gap < (is_cut ? 1 : gaps); ++s.gap)
      for (const way how : {way::inline_function, way::registers}) {
        play(s, how);
        if (HasFailure()) return;
      }
  }
}

TEST_P(String, IsTheCLibrarysAtEveryLengthAndPlace) {
  const auto [first, end] = seeds_of_cases(lengths * gaps);
  for (std::uint64_t seed = first; seed < end && !HasFailure(); ++seed) {
    const auto [length, gap] = std::pair(seed / gaps, seed % gaps);
    const bool is_inline = (length + gap) % 2 == 0;
    play(drawn_scene(GetParam(), seed), is_inline ? way::inline_function : way::registers);
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
void* __wrap_malloc(std::size_t size) {
  if (!routine_runs) return __real_malloc(size);
  return no_memory ? nullptr : end(partner_area) - size;
}
}

}  // namespace zorvac::test
