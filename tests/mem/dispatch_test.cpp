// The first hop: from an entry point to the variant that the indicator selects. The program has its
// own variants, which change no register, so a call shows what the entry point itself does.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "mem/selection.h"
#include "support/registers.h"

extern "C" {
extern const char zorvac_test_names[];
extern std::uint32_t zorvac_test_taken;
}

namespace zorvac::test {
namespace {

class Dispatch : public testing::TestWithParam<dispatcher> {
 protected:
  // Calls the entry point with every register filled; tells the variant and what has changed.
  std::string variant_for(std::uint64_t indicator) {
    zorvac_test_taken = 0;
    __zorva_cpu_feature_indicator = indicator;
    const register_file in = filled_registers(static_cast<unsigned>(indicator % 977));
    const register_file out = call_with_registers(GetParam().entry, in);
    EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{}) << std::hex << indicator;
    return zorvac_test_names + zorvac_test_taken;
  }
};

TEST_P(Dispatch, SelectsTheVariantOfTheIndicatorAndChangesNoRegister) {
  for (const std::uint64_t indicator : indicators())
    ASSERT_EQ(variant_for(indicator), selected(GetParam(), indicator).variant)
        << std::hex << indicator;
}

TEST_P(Dispatch, ReadsTheIndicatorAfreshOnEveryCall) {
  for (int turn = 0; turn < 3; ++turn)
    for (const selection& row : GetParam().rows) EXPECT_EQ(variant_for(row.mask), row.variant);
}

// The library's own detection, on this processor: its result decides, and it changes no register.
// Bits other than bit 0 do not pass for a detected processor.
TEST_P(Dispatch, DetectsWhenBitZeroIsClear) {
  for (const std::uint64_t indicator : {std::uint64_t{0}, ~std::uint64_t{1} & 0x7389d97ff}) {
    const std::string variant = variant_for(indicator);
    EXPECT_EQ(__zorva_cpu_feature_indicator & 1, 1u);
    EXPECT_EQ(variant, selected(GetParam(), __zorva_cpu_feature_indicator).variant);
  }
}

INSTANTIATE_TEST_SUITE_P(Fast, Dispatch, testing::ValuesIn(dispatchers()), name_of_dispatcher);

struct choice {
  const char* name;
  std::uint64_t indicator;
  const char *copy, *move, *fill;  // variant letters
};
constexpr choice choices[] = {
    {"ForeignVendor", 0x1, "A", "A", "A"},
    {"Sse3IsSse2", 0xff, "J", "A", "J"},
    {"Ssse3FillsAsSse2", 0x1ff, "M", "M", "J"},
    {"Sse42FillsAsSse2", 0x17ff, "P", "P", "J"},
    {"Sse42WithoutPopcnt", 0x7ff, "M", "M", "J"},
    {"MovbeIsNotAsked", 0x9d97ff, "V", "P", "V"},
    {"MovbeDoesNoHarm", 0x9d9fff, "V", "P", "V"},
    {"AvxAlone", 0x197ff, "P", "P", "J"},
    {"Avx2LevelWithoutAvx2", 0x1d97ff, "P", "P", "J"},
    {"Avx512WithoutEr", 0x6389d97ff, "V", "P", "V"},
    {"Avx512WithoutPf", 0x5389d97ff, "V", "P", "V"},
    {"Avx512OfServers", 0xfc79fdffff & ~0x300000000, "V", "P", "V"},
    {"Avx512WithErAndPf", 0x7389d97ff, "Z", "P", "Z"},
    {"Avx512WithoutAvx2", 0x7381d97ff, "P", "P", "J"},
};
std::ostream& operator<<(std::ostream& out, const choice& c) { return out << c.name; }

class Choice : public testing::TestWithParam<choice> {};

TEST_P(Choice, IsMade) {
  const char* const letters[] = {GetParam().copy, GetParam().move, GetParam().fill};
  const char* const stems[] = {"memcpy.", "memmove.", "memset."};
  for (std::size_t i = 0; i < 3; ++i) {
    __zorva_cpu_feature_indicator = GetParam().indicator;
    call_with_registers(dispatchers()[i].entry, filled_registers(1));
    EXPECT_EQ(zorvac_test_names + zorvac_test_taken,
              std::string("_zorva_fast_") + stems[i] + letters[i]);
  }
}
INSTANTIATE_TEST_SUITE_P(Fast, Choice, testing::ValuesIn(choices),
                         [](const auto& row) { return std::string(row.param.name); });

// The library itself exports what this program has put its own functions in the place of.
TEST(MemoryExports, AreAllThere) {
  void* const library = dlopen("libzorvac.so.5", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr) << dlerror();
  std::vector<std::string> names{"_zorva_fast_memcmp",  "__zorva_memcpy",     "__zorva_memset",
                                 "__zorva_new_memmove", "__zorva_new_memcmp", "_VEC_memcpy",
                                 "_VEC_memset",         "_VEC_memzero",       "__zorva_VEC_memcpy",
                                 "__zorva_VEC_memset",  "__zorva_VEC_memzero"};
  for (const dispatcher& d : dispatchers())
    for (const selection& row : d.rows) {
      names.emplace_back(row.variant);
      if (row.mask != 1) names.emplace_back(row.worker);
    }
  for (const std::string& name : names) {
    void* const symbol = dlsym(library, name.c_str());
    ASSERT_NE(symbol, nullptr) << name;
    Dl_info where{};
    ASSERT_NE(dladdr(symbol, &where), 0) << name;
    EXPECT_NE(std::string_view(where.dli_fname).find("libzorvac.so"), std::string_view::npos)
        << name;
  }
  dlclose(library);
}

}  // namespace
}  // namespace zorvac::test
