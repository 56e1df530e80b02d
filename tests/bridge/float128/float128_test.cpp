// The routines of libzorvac_float128 against the compiler's own, which are loaded from its run-time
// library: all bits of the results except padding, and flags.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>

#include "quad/quads.h"
#include "support/name_of_row.h"

namespace zorvac::test {
namespace {

using binary128 = __float128;
struct complex_quad {
  binary128 real, imaginary;
};
void* routine_of(const char* library, const char* name) {
  void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  void* const routine = handle != nullptr ? dlsym(handle, name) : nullptr;
  if (routine == nullptr) ADD_FAILURE() << dlerror();
  return routine;
}

// Calls a routine with this signature. The operands are every 16 bytes. The first `Counts` bytes of
// the result are returned, with zeros above them.
using outcome = std::array<word, 2>;
using call_by_shape = outcome(void* routine, const operands& in);
template <class Shape, std::size_t Counts = sizeof(outcome)>
outcome call_of(void* routine, const operands& in) {
  alignas(outcome) unsigned char result[sizeof(outcome)] = {};
  call_as(reinterpret_cast<Shape*>(routine), result,
          reinterpret_cast<const unsigned char*>(in.data()));
  std::memset(result + Counts, 0, sizeof(outcome) - Counts);
  return load<outcome>(result);
}
// A binary16 number is returned in the low bits of a register, declared here as a float.
constexpr std::size_t half = 2;

struct named {
  const char* name;
  kind takes;
  call_by_shape* call;
};
std::ostream& operator<<(std::ostream& out, const named& r) { return out << r.name; }

using enum kind;
constexpr auto arithmetic = call_of<binary128(binary128, binary128)>;
constexpr auto comparison = call_of<long(binary128, binary128)>;
constexpr auto of_complex = call_of<complex_quad(binary128, binary128, binary128, binary128)>;
const named rows[] = {
    {"__addtf3", pair, arithmetic},
    {"__subtf3", pair, arithmetic},
    {"__multf3", pair, arithmetic},
    {"__divtf3", pair, arithmetic},
    {"__negtf2", quad, call_of<binary128(binary128)>},
    {"__powitf2", with_mode, call_of<binary128(binary128, int)>},
    {"__multc3", four, of_complex},
    {"__divtc3", four, of_complex},
    {"__eqtf2", pair, comparison},
    {"__netf2", pair, comparison},
    {"__lttf2", pair, comparison},
    {"__letf2", pair, comparison},
    {"__gttf2", pair, comparison},
    {"__getf2", pair, comparison},
    {"__unordtf2", pair, comparison},
    {"__extendhftf2", integer, call_of<binary128(float)>},
    {"__extendsftf2", binary32, call_of<binary128(float)>},
    {"__extenddftf2", binary64, call_of<binary128(double)>},
    {"__extendxftf2", extended, call_of<binary128(long double)>},
    {"__trunctfhf2", quad, call_of<float(binary128), half>},
    {"__trunctfsf2", quad, call_of<float(binary128)>},
    {"__trunctfdf2", quad, call_of<double(binary128)>},
    {"__trunctfxf2", quad, call_of<long double(binary128)>},
    {"__fixtfsi", quad, call_of<std::int32_t(binary128)>},
    {"__fixtfdi", quad, call_of<std::int64_t(binary128)>},
    {"__fixtfti", quad, call_of<int128(binary128)>},
    {"__fixunstfsi", quad, call_of<std::uint32_t(binary128)>},
    {"__fixunstfdi", quad, call_of<std::uint64_t(binary128)>},
    {"__fixunstfti", quad, call_of<word(binary128)>},
    {"__floatsitf", integer, call_of<binary128(std::int32_t)>},
    {"__floatditf", integer, call_of<binary128(std::int64_t)>},
    {"__floattitf", integer, call_of<binary128(int128)>},
    {"__floatunsitf", integer, call_of<binary128(std::uint32_t)>},
    {"__floatunditf", integer, call_of<binary128(std::uint64_t)>},
    {"__floatuntitf", integer, call_of<binary128(word)>},
};

class Float128 : public testing::TestWithParam<named> {
 protected:
  void* const theirs_ = routine_of("libgcc_s.so.1", GetParam().name);
  void* const ours_ = routine_of(ZORVAC_FLOAT128, GetParam().name);
};
INSTANTIATE_TEST_SUITE_P(Bridge, Float128, testing::ValuesIn(rows), name_of_row);

// The result, and the registers after the call. In some places the compiler's routine uses the x87:
// it raises flags in its status word only, and rounds by its control word.
std::pair<outcome, registers> observed(call_by_shape* call, void* routine, const operands& in,
                                       unsigned rounding) {
  set({all_masked | rounding << rounding_shift,
       static_cast<std::uint16_t>(initial.control | rounding << 10), 0});
  const outcome result = call(routine, in);
  const registers after = current();
  set(initial);
  return {result, after};
}

// Every other case is a combination of these numbers. The last two have a subnormal difference.
constexpr word specials[] = {
    0,
    1,
    one,
    infinity - 1,
    infinity,
    infinity | quiet_bit | 5,
    (word{6} << 112) + 5,
    (word{6} << 112) + 4,
};

TEST_P(Float128, MatchesTheCompilersRoutine) {
  const auto [first, end] = seeds_of_cases(static_cast<std::uint64_t>(random_cases(60'000)));
  for (std::uint64_t seed = first; seed < end; ++seed) {
    operands in = random_operands(GetParam().takes, seed);
    case_random random(~seed);
    if (seed % 2 != 0)
      for (word& q : in) q = specials[random.below(8)] | (random.one_in(2) ? sign : 0);
    if (GetParam().takes == with_mode) {  // exponents of powi, small ones as often as large ones
      const auto n = static_cast<std::int32_t>(random());
      in[1] = static_cast<std::uint32_t>(n >> random.below(32));
    }
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      auto [theirs, expected] = observed(GetParam().call, theirs_, in, rounding);
      const auto [ours, seen] = observed(GetParam().call, ours_, in, rounding);
      expected.mxcsr |= expected.status;
      expected.status = 0;
      // Releases of the compiler test different numbers in complex routines, and so raise DE for
      // different subnormal ones.
      if (GetParam().takes == four)
        expected.mxcsr = (expected.mxcsr & ~denormal) | (seen.mxcsr & denormal);
      if (theirs == ours && expected == seen) continue;
      FAIL() << "ZORVAC_SEED=" << seed << ", mode " << rounding << ", operands " << hex(in[0])
             << ", " << hex(in[1]) << ", " << hex(in[2]) << ", " << hex(in[3]) << "\n  expected "
             << hex(theirs[0]) << ", " << hex(theirs[1]) << "\n  seen     " << hex(ours[0]) << ", "
             << hex(ours[1]) << "\n  " << difference(expected, seen);
    }
  }
}

}  // namespace
}  // namespace zorvac::test
