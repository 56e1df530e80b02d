// Tests the shared library from outside. This program has its own function for each routine that
// the library exports (stand_ins.S), so it sees every hop from one exported routine to the next:
// which variant a dispatcher takes for which indicator, with every register as the caller left it,
// and the calls that a routine makes one after the other. Nothing is computed.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <ucontext.h>
#include <unwind.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "startup/checks.h"
#include "support/child.h"
#include "support/registers.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac::test;
using u64 = std::uint64_t;
using words = std::vector<u64>;
using steps = std::vector<std::pair<std::string, words>>;

steps calls;
words inner_block;  // the arguments of the last inner kernel
u64 detected;       // the result of detection
bool unwound;       // whether the unwinder gets from detection to the dispatcher's caller

// Whether the unwinder gets from here to these two return addresses, one after the other. It goes
// no further: the caller's frame pointer is one of the filled registers.
bool unwinds_to(u64 first, u64 second) {
  words walk{first, 0};  // where to stop one step later, and the addresses met
  const auto look = [](_Unwind_Context* context, void* state) {
    auto& w = *static_cast<words*>(state);
    w.push_back(_Unwind_GetIP(context));
    return w.end()[-2] == w[0] ? _URC_END_OF_STACK : _URC_NO_REASON;
  };
  _Unwind_Backtrace(look, &walk);
  return walk.end()[-2] == first && walk.back() == second;
}

// Records the call of a stand-in, whose name follows its code. The stack holds the return address
// into the library and further arguments.
void note(int, siginfo_t*, void* context) {
  auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  const auto* const stack = reinterpret_cast<const u64*>(registers[REG_RSP]);
  words passed(stack + 1, stack + 5);
  for (const int place : {REG_R9, REG_R8, REG_RCX, REG_RDX, REG_RSI, REG_RDI})
    passed.insert(passed.begin(), static_cast<u64>(registers[place]));
  const std::string name = reinterpret_cast<const char*>(registers[REG_RIP]) + 3;
  if (name == "__zorva_cpu_features_init") {
    __zorva_cpu_feature_indicator = detected;
    unwound = unwinds_to(stack[0], stack[2]);  // a word aligns the stack
  }
  if (name.find("dinner") != std::string::npos) {  // takes its scalars by address
    for (auto i : {0u, 1u, 2u, 5u, 7u, 9u}) passed[i] = *reinterpret_cast<const u64*>(passed[i]);
    inner_block = passed;
  }
  calls.emplace_back(name, passed);
  registers[REG_RIP] += 2;
}

// Calls a routine of the library with these arguments, or without arguments and with registers that
// must not change on the way. The addresses that it passes on are checked by the tests of results.
constexpr u64 address = 1 << 24;
void expect_calls(const std::string& routine, const steps& expected, const words& w = {}) {
  static unsigned seed = 0;
  register_file in = filled_registers(++seed);
  in.general[rdi] |= u64{1} << 63;  // no address
  const gpr places[] = {rdi, rsi, rdx, rcx, r8, r9};
  for (std::size_t i = 0; i < w.size(); ++i)
    (i < 6 ? in.general[places[i]] : in.above[i - 6]) = w[i];
  struct sigaction action {};
  action.sa_sigaction = note;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGILL, &action, nullptr);
  calls.clear();
  void* const of_library = dlsym(RTLD_NEXT, routine.c_str());
  const register_file out = call_with_registers(reinterpret_cast<void (*)()>(of_library), in);
  SCOPED_TRACE(testing::Message() << routine << ", indicator 0x" << std::hex
                                  << __zorva_cpu_feature_indicator);
  const auto changed = w.empty() ? changed_registers(in, out) : std::vector<std::string>{};
  EXPECT_EQ(changed, std::vector<std::string>{});
  for (std::size_t i = 0; i < calls.size() && i < expected.size(); ++i) {
    words& passed = calls[i].second;
    std::erase_if(passed, [](u64 word) { return word >= address; });
    passed.resize(expected[i].second.size());
    ASSERT_EQ(calls[i], expected[i]) << "step " << i;
  }
  ASSERT_EQ(calls.size(), expected.size()) << "steps";
}

const std::string types[] = {"r4", "r8", "c4", "c8"}, storages[] = {"n_n", "n_t", "t_n", "t_t"};
words product_of(u64 m, u64 k, u64 n) { return {address, address, address, m, k, n, 7, 8, 9}; }

// The most demanding variant comes first. The last one needs only bit 0.
std::vector<check> dispatchers() {
  const std::vector<variant> none, blocked = {{level::sse2, ".J"}};
  // clang-format off
  std::vector<check> all = {
      {"_zorva_fast_memcpy", {{level::avx512_er_pf, ".Z"}, {level::avx2, ".V"},
                              {level::sse4_2, ".P"}, {level::ssse3, ".M"}, {level::sse2, ".J"}}},
      {"_zorva_fast_memmove", {{level::sse4_2, ".P"}, {level::ssse3, ".M"}}},
      {"_zorva_fast_memset", {{level::avx512_er_pf, ".Z"}, {level::avx2, ".V"},
                              {level::sse2, ".J"}}},
      {"__mulq", {{level::sse3, ".L"}}},
      {"__divq", {{level::sse3, ".L"}}}};
  // clang-format on
  all.insert(all.end(), std::begin(checks), std::end(checks));
  for (const std::string& type : types)
    for (const std::string& storage : storages)
      all.push_back({"_MATMUL_" + type + '_' + storage, type == "r8" ? blocked : none});
  for (check& c : all) {
    std::erase_if(c.variants, [](const variant& v) { return v.takes == never_selected; });
    c.variants.push_back({level::generic, ".A"});
  }
  return all;
}

// Tries every mask, every mask with one bit changed, all bits but one, and every mask with all bits
// that no mask has. Where bit 0 is clear, detection runs first, whatever else is set.
TEST(Dispatch, TakesTheFirstVariantWhoseMaskIsWhollyPresent) {
  for (const check& c : dispatchers())
    for (const variant& tried : c.variants)
      for (u64 bit = 1; bit != 0; bit <<= 1)
        for (const u64 indicator :
             {tried.takes, tried.takes ^ bit, ~bit, tried.takes | ~c.variants[0].takes}) {
          __zorva_cpu_feature_indicator = indicator;
          detected = tried.takes;
          const bool known = (indicator & level::generic) != 0;
          const u64 present = known ? indicator : detected;
          const auto taken = std::ranges::find_if(
              c.variants, [&](const variant& v) { return (present & v.takes) == v.takes; });
          steps expected;
          if (!known) expected.emplace_back("__zorva_cpu_features_init", words{});
          expected.emplace_back(c.name + taken->letter, words{});
          expect_calls(c.name, expected);
          EXPECT_TRUE(unwound || known) << "from detection to the caller of " << c.name;
          if (HasFailure()) return;
        }
}

// Only a program's own detection can leave the indicator zero.
TEST(Dispatch, RefusesADetectionThatLeavesNothing) {
  detected = __zorva_cpu_feature_indicator = 0;
  const auto check =
      reinterpret_cast<void (*)(int, u64)>(dlsym(RTLD_NEXT, "__zorva_new_feature_proc_init"));
  EXPECT_EQ(
      run_in_child([&] { check(0, 2); }),
      (outcome{"", "\nUse of incompatible or internally inconsistent Zorva(R) libvrt library\n\n",
               1, 0}));
}

TEST(Variants, LeadToTheirWorkers) {
  // clang-format off
  const std::pair<const char*, const char*> rows[] = {
      {"memcpy.Z", "__zorva_vpx_avx512f_memcpy"}, {"memcpy.V", "__zorva_avx_rep_memcpy"},
      {"memcpy.P", "__zorva_ssse3_rep_memcpy"}, {"memcpy.M", "__zorva_ssse3_memcpy"},
      {"memcpy.J", "__zorva_new_memcpy"}, {"memcpy.A", "memcpy"},
      {"memmove.P", "__zorva_ssse3_rep_memmove"}, {"memmove.M", "__zorva_ssse3_memmove"},
      {"memmove.A", "memmove"}, {"memset.Z", "__zorva_vpx_avx512f_memset"},
      {"memset.V", "__zorva_avx_rep_memset"}, {"memset.J", "__zorva_new_memset"},
      {"memset.A", "memset"}};
  // clang-format on
  for (const auto& [variant, worker] : rows)
    expect_calls(std::string("_zorva_fast_") + variant, {{worker, {}}});
}

// Only the complex general kernels promise to run detection, even where there is nothing to do.
TEST(Variants, OfProductsClearAndSwapTheExtents) {
  const words kernel{4, 6, 5, 7, 8, 9};
  detected = 1;
  for (const std::string& type : types)
    for (const std::string& storage : storages) {
      const std::string name = "_MATMUL_" + type + '_' + storage, general = name + "_pst_General";
      const steps clearing{{"_MATMUL_" + type + "_n_n_pst_init", {4, 6, 9}}, {general, kernel}};
      expect_calls(name + ".A", clearing, product_of(4, 5, 6));
      if (type == "r8") expect_calls(name + ".J", {{name + "_XK64w", kernel}}, product_of(4, 5, 6));
      __zorva_cpu_feature_indicator = 0xfe;
      const steps detection(type[0] == 'c' ? 1 : 0, {"__zorva_cpu_features_init", {}});
      expect_calls(general, detection, product_of(0, 0, 0));
    }
}

// Complex arithmetic calls the real routines, part by part, in the order of its formulas.
TEST(Complex, IsMadeOfRealOperations) {
  const std::pair<const char*, std::vector<std::string>> rows[] = {
      {"__caddq", {"add", "add"}},
      {"__csubq", {"sub", "sub"}},
      {"__cnegq", {"neg", "neg"}},
      {"__cmulq", {"mul", "mul", "mul", "mul", "sub", "add"}},
      {"__cdivq",
       {"mul", "mul", "add", "div", "mul", "mul", "mul", "mul", "add", "sub", "mul", "mul"}}};
  for (const auto& [routine, operations] : rows) {
    steps expected;
    for (const std::string& operation : operations)
      expected.emplace_back("__" + operation + 'q', words{});
    expect_calls(routine, expected, words(5, address));
  }
}

// Two panels of columns, the short block of terms before two full ones, three blocks of rows; a row
// and three columns are left over.
TEST(BlockedKernel, TakesItsSteps) {
  const u64 m = 525, k = 227, n = 2007;
  for (const std::string a : {"n", "t"})
    for (const std::string b : {"n", "t"}) {
      const std::string name = "_MATMUL_r8_" + a + '_' + b;
      steps expected;
      for (const u64 w : {2000u, 4u})
        for (const u64 terms : {3u, 112u, 112u}) {
          expected.push_back({"__zorva_dgcopyb" + b + "_psc", {terms, w, 8}});
          for (const u64 h : {260u, 260u, 4u}) {
            expected.push_back({"__zorva_dgcopya" + a + "_xk64w", {h, terms, 7}});
            const char* const inner = terms == 3 ? "nerz_roll" : "ner";
            expected.push_back({std::string("__zorva_din") + inner + "_xk64w",
                                {h, w, (terms + 3) / 4 * 4, 112, 9, 0}});
          }
          if (terms == 3) expected.push_back({"_MATMUL_r8_n_n_pst_init", {1, w, 9}});
          expected.push_back({name + "_pst_General", {1, w, terms, 7, 8, 9}});
        }
      const words column = a == "n" ? words{m, k, 7} : words{k, m, 7};
      expected.insert(expected.end(), 3, {"MATMUL_v_" + a + b + "_pst", column});
      expect_calls(name + "_XK64w", expected, product_of(m, n, k));

      // The places of the buffer's parts, as far as their alignment shows.
      const u64 packed_a = inner_block[3], packed_b = inner_block[4], strip = inner_block[8];
      EXPECT_EQ(packed_a % 4096, 0u) << name;
      EXPECT_EQ(packed_b - packed_a, 0x3b000u) << name;
      EXPECT_EQ(strip % 128, 0u) << name;
      EXPECT_EQ((strip - 256 - (packed_a + 0x3c000 + 2000 * 896)) / (4096 + 128), 0u) << name;
    }
}

}  // namespace
