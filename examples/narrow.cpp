// Narrowing conversions in C++ that must not lose bits: a cast with a check, which costs one call,
// and only between types where bits could be lost. Without an argument every value fits. With a
// number as argument, the program converts it, and a failed check may end the program.
#include <zorvac/diag.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

namespace {

// The check for each pair of sizes.
template <std::size_t From, std::size_t To>
constexpr auto check() {
  if constexpr (From == 2 && To == 1) return _RTC_Check_2_to_1;
  if constexpr (From == 4 && To == 1) return _RTC_Check_4_to_1;
  if constexpr (From == 8 && To == 1) return _RTC_Check_8_to_1;
  if constexpr (From == 4 && To == 2) return _RTC_Check_4_to_2;
  if constexpr (From == 8 && To == 2) return _RTC_Check_8_to_2;
  if constexpr (From == 8 && To == 4) return _RTC_Check_8_to_4;
}

// A value passes if the target can hold it, as a signed or as an unsigned number.
template <class To, class From>
To narrow(From value) {
  static_assert(std::is_integral_v<From> && std::is_integral_v<To>);
  if constexpr (sizeof(To) < sizeof(From))
    return static_cast<To>(
        check<sizeof(From), sizeof(To)>()(static_cast<std::make_signed_t<From>>(value)));
  else
    return static_cast<To>(value);
}

}  // namespace

int main(int argc, char** argv) {
  const std::int64_t number = argc > 1 ? std::atoll(argv[1]) : 60'000;
  std::printf("-128 is %d, 255 is %d, in one byte\n", narrow<std::int8_t>(-128),
              narrow<std::uint8_t>(255));
  std::printf("%lld is %d in four bytes,", static_cast<long long>(number),
              narrow<std::int32_t>(number));
  std::fflush(stdout);
  std::printf(" %d in two\n", narrow<std::uint16_t>(number));
  return 0;
}
