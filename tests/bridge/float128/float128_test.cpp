// The routines of libzorvac_float128 beside the compiler's own, which are loaded from its run-time
// library: results with all bits that count, and flags.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "quad/quads.h"
#include "support/name_of_row.h"

namespace zorvac::test {
namespace {

using binary128 = __float128;
struct complex_quad {
  binary128 real, imaginary;
};
// In the low bits of a register that could hold a float.
struct half {
  std::uint16_t bits;
};

void* routine_of(const char* library, const char* name) {
  void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  void* const routine = handle != nullptr ? dlsym(handle, name) : nullptr;
  if (routine == nullptr) ADD_FAILURE() << dlerror();
  return routine;
}

// Calls a routine of this shape. Operands lie every 16 bytes; the result is returned with zeros
// above it.
using outcome = std::array<word, 2>;
template <class T>
struct passed {
  using as = T;
  static T from(const word& in) { return load<T>(&in); }
  static outcome to(const T& result) {
    outcome all{};
    std::memcpy(&all, &result, size_of<T>);
    return all;
  }
};
template <>
struct passed<half> {
  using as = float;
  static float from(const word& in) {
    return std::bit_cast<float>(0xabcd'0000U | static_cast<std::uint16_t>(in));
  }
  static outcome to(float result) {
    return {word{static_cast<std::uint16_t>(std::bit_cast<std::uint32_t>(result))}};
  }
};
using call_by_shape = outcome(void* routine, const operands& in);
template <class R, class... T>
outcome call_of(void* routine, const operands& in) {
  const word* next = in.data();
  const std::tuple<typename passed<T>::as...> arguments{
      passed<T>::from(*std::exchange(next, next + 1))...};
  using shape = typename passed<R>::as(typename passed<T>::as...);
  return passed<R>::to(std::apply(reinterpret_cast<shape*>(routine), arguments));
}

struct named {
  const char* name;
  kind takes;
  call_by_shape* call;
};
std::ostream& operator<<(std::ostream& out, const named& r) { return out << r.name; }

using enum kind;
constexpr auto arithmetic = call_of<binary128, binary128, binary128>;
constexpr auto comparison = call_of<long, binary128, binary128>;
constexpr auto of_complex = call_of<complex_quad, binary128, binary128, binary128, binary128>;
const named rows[] = {
    {"__addtf3", pair, arithmetic},
    {"__subtf3", pair, arithmetic},
    {"__multf3", pair, arithmetic},
    {"__divtf3", pair, arithmetic},
    {"__negtf2", quad, call_of<binary128, binary128>},
    {"__powitf2", with_mode, call_of<binary128, binary128, int>},
    {"__multc3", four, of_complex},
    {"__divtc3", four, of_complex},
    {"__eqtf2", pair, comparison},
    {"__netf2", pair, comparison},
    {"__lttf2", pair, comparison},
    {"__letf2", pair, comparison},
    {"__gttf2", pair, comparison},
    {"__getf2", pair, comparison},
    {"__unordtf2", pair, comparison},
    {"__extendhftf2", integer, call_of<binary128, half>},
    {"__extendsftf2", binary32, call_of<binary128, float>},
    {"__extenddftf2", binary64, call_of<binary128, double>},
    {"__extendxftf2", extended, call_of<binary128, long double>},
    {"__trunctfhf2", quad, call_of<half, binary128>},
    {"__trunctfsf2", quad, call_of<float, binary128>},
    {"__trunctfdf2", quad, call_of<double, binary128>},
    {"__trunctfxf2", quad, call_of<long double, binary128>},
    {"__fixtfsi", quad, call_of<std::int32_t, binary128>},
    {"__fixtfdi", quad, call_of<std::int64_t, binary128>},
    {"__fixtfti", quad, call_of<int128, binary128>},
    {"__fixunstfsi", quad, call_of<std::uint32_t, binary128>},
    {"__fixunstfdi", quad, call_of<std::uint64_t, binary128>},
    {"__fixunstfti", quad, call_of<word, binary128>},
    {"__floatsitf", integer, call_of<binary128, std::int32_t>},
    {"__floatditf", integer, call_of<binary128, std::int64_t>},
    {"__floattitf", integer, call_of<binary128, int128>},
    {"__floatunsitf", integer, call_of<binary128, std::uint32_t>},
    {"__floatunditf", integer, call_of<binary128, std::uint64_t>},
    {"__floatuntitf", integer, call_of<binary128, word>},
};

class Float128 : public testing::TestWithParam<named> {
 protected:
  // The first difference between the two libraries' routines, or nothing. The compiler's raises
  // some flags in the x87 status word only, and rounds by its control word in some places.
  std::string difference_for(const operands& in, unsigned rounding) const {
    const auto call = [&](void* routine, registers& after) {
      set({all_masked | rounding << rounding_shift,
           static_cast<std::uint16_t>(initial.control | rounding << 10), 0});
      const outcome result = GetParam().call(routine, in);
      after = current();
      set(initial);
      return result;
    };
    registers theirs_after, ours_after;
    const outcome theirs = call(theirs_, theirs_after), ours = call(ours_, ours_after);
    theirs_after.mxcsr |= theirs_after.status;
    theirs_after.status = 0;
    // Which operands and results a complex routine tests, and so which subnormal number raises DE,
    // differs between releases of the compiler.
    if (GetParam().takes == four) {
      theirs_after.mxcsr &= ~denormal;
      ours_after.mxcsr &= ~denormal;
    }
    std::string told = difference(theirs_after, ours_after);
    for (std::size_t i = 0; i < theirs.size() && told.empty(); ++i)
      if (theirs[i] != ours[i])
        told = "part " + std::to_string(i) + " of the result: expected " + hex(theirs[i]) +
               ", seen " + hex(ours[i]);
    if (told.empty()) return {};
    told += "\n  rounding mode " + std::to_string(rounding);
    for (unsigned i = 0; i < operand_count(GetParam().takes); ++i)
      told += "\n  operand " + std::to_string(i + 1) + ": " + hex(in[i]);
    return told;
  }

 private:
  void* const theirs_ = routine_of("libgcc_s.so.1", GetParam().name);
  void* const ours_ = routine_of(ZORVAC_FLOAT128, GetParam().name);
};
INSTANTIATE_TEST_SUITE_P(Bridge, Float128, testing::ValuesIn(rows), name_of_row);

// Exponents of powi, as often small as large.
word random_exponent(std::uint64_t seed) {
  case_random random(~seed);
  const auto n = static_cast<std::uint32_t>(random());
  return static_cast<std::uint32_t>(static_cast<std::int32_t>(n) >> random.below(32));
}

TEST_P(Float128, DoesOnRandomOperandsAsTheCompilers) {
  const auto [first, end] = seeds_of_cases(static_cast<std::uint64_t>(random_cases(60'000)));
  for (std::uint64_t seed = first; seed < end; ++seed) {
    operands in = random_operands(GetParam().takes, seed);
    if (GetParam().takes == with_mode) in[1] = random_exponent(seed);
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      const std::string wrong = difference_for(in, rounding);
      if (!wrong.empty()) FAIL() << "ZORVAC_SEED=" << seed << ": " << wrong;
    }
  }
}

// Every combination of what is special, for what takes quads alone.
TEST_P(Float128, DoesOnSpecialOperandsAsTheCompilers) {
  const unsigned count = operand_count(GetParam().takes);
  const bool takes_quads = GetParam().takes == quad || count != 1;
  if (!takes_quads || GetParam().takes == with_mode) return;
  constexpr word largest = infinity - 1, smallest_normal = word{1} << 112;
  // The last two have a subnormal difference.
  const std::vector<word> few = {0,
                                 1,
                                 one,
                                 largest,
                                 infinity,
                                 infinity | quiet_bit | 5,
                                 (word{6} << 112) + 5,
                                 (word{6} << 112) + 4};
  std::vector<word> specials = few;
  if (count != 4)
    specials.insert(specials.end(), {smallest_normal, infinity | 5, infinity | 9,
                                     infinity | quiet_bit | 9, one + 1, one + (word{31} << 112)});
  const std::size_t n = specials.size() * 2;
  std::size_t combinations = 1;
  for (unsigned i = 0; i < count; ++i) combinations *= n;
  for (std::size_t combination = 0; combination < combinations; ++combination) {
    operands in{};
    std::size_t rest = combination;
    for (unsigned i = 0; i < count; ++i, rest /= n)
      in[i] = specials[rest % n / 2] | (rest % 2 != 0 ? sign : 0);
    for (const unsigned rounding : {to_nearest, down, up, toward_zero})
      if (const std::string wrong = difference_for(in, rounding); !wrong.empty()) FAIL() << wrong;
  }
}

}  // namespace
}  // namespace zorvac::test
