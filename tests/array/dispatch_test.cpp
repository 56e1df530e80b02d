// The shared library from outside: this program stands in for every routine that another one of the
// array family calls (stand_ins.S). So it sees which variant an indicator selects, in which order the
// extents arrive, and the steps of the blocked kernels. Nothing is computed, and addresses, which
// results depend on, are left to the tests of results.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "zorvac/cpu.h"

using u64 = std::uint64_t;
using words = std::vector<u64>;
using steps = std::vector<std::pair<std::string, words>>;

static steps calls;        // without addresses
static words inner_block;  // the arguments of the last call of an inner kernel
static u64 detected;
static unsigned detections;
constexpr u64 address = 1 << 24;

extern "C" {
// At `call` are the name and six arguments, then, past a return address, those on the stack.
void zorvac_test_note(const u64* call) {
  const std::string name(reinterpret_cast<const char*>(call[0]));
  words w(call + 1, call + 11);
  std::copy_n(call + 8, 4, &w[6]);
  if (name.find("dinner") != name.npos) {  // takes its scalars by address
    for (const u64 i : {0u, 1u, 2u, 5u, 7u, 9u}) w[i] = *reinterpret_cast<const u64*>(w[i]);
    inner_block = w;
  }
  std::erase_if(w, [](u64 word) { return word >= address; });
  calls.emplace_back(name, w);
}
// Detection promises to change no register.
[[gnu::no_caller_saved_registers, gnu::target("general-regs-only")]] void detection() __asm__(
    "__zorva_cpu_features_init");
void detection() {
  ++detections;
  __zorva_cpu_feature_indicator = detected;
}
}

namespace {

// What a routine of the library calls, with the arguments as far as they are expected.
void expect(const std::string& routine, const words& w, const steps& expected) {
  using function = void(u64, u64, u64, u64, u64, u64, u64, u64, u64);
  const auto run = reinterpret_cast<function*>(dlsym(RTLD_NEXT, routine.c_str()));
  calls.clear();
  detections = 0;
  run(w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7], w[8]);
  for (u64 i = 0; i < calls.size() && i < expected.size(); ++i)
    calls[i].second.resize(expected[i].second.size());
  EXPECT_EQ(calls, expected) << routine;
}
words product_of(u64 m, u64 k, u64 n) { return {address, address, address, m, k, n, 7, 8, 9}; }

TEST(MatrixDispatch, SelectsByTheIndicatorAndSwapsTheExtents) {
  const words entry{4, 5, 6, 7, 8, 9}, kernel{4, 6, 5, 7, 8, 9};
  for (const std::string type : {"r4", "r8", "c4", "c8"})
    for (const std::string storage : {"n_n", "n_t", "t_n", "t_t"}) {
      const std::string name = "_MATMUL_" + type + '_' + storage, general = name + "_pst_General";
      for (u64 i = 0; i < 1024; ++i) {  // every low byte, with and without other bits
        __zorva_cpu_feature_indicator = (i & 256) != 0 ? i | ~u64{255} : i & 255;
        detected = (i & 512) != 0 ? 0x7f : 0x81;
        const u64 known = (i & 1) != 0 ? i : detected;
        const char* const variant = type == "r8" && (known & 0x7f) == 0x7f ? ".J" : ".A";
        expect(name, product_of(4, 5, 6), {{name + variant, entry}});
        EXPECT_EQ(detections, known == i ? 0u : 1u) << name << i;
      }
      const steps clearing{{"_MATMUL_" + type + "_n_n_pst_init", {4, 6, 9}}, {general, kernel}};
      expect(name + ".A", product_of(4, 5, 6), clearing);
      if (type == "r8") expect(name + ".J", product_of(4, 5, 6), {{name + "_XK64w", kernel}});
      // Of the general kernels the complex ones promise to detect, even where there is nothing to do.
      __zorva_cpu_feature_indicator = 0xfe;
      expect(general, product_of(0, 0, 0), {});
      EXPECT_EQ(detections, type[0] == 'c' ? 1u : 0u) << general;
    }
}

// Two panels of columns, the short block of terms before two whole ones, three blocks of rows, and
// what is left over: a row and three columns.
TEST(BlockedKernel, TakesItsSteps) {
  const u64 m = 525, k = 227, n = 2007;
  for (const std::string storage : {"nn", "nt", "tn", "tt"}) {
    const char a = storage[0], b = storage[1];
    const std::string name = std::string("_MATMUL_r8_") + a + '_' + b;
    steps expected;
    for (const u64 w : {2000u, 4u})
      for (const u64 terms : {3u, 112u, 112u}) {
        const char* const inner = terms == 3 ? "nerz_roll_xk64w" : "ner_xk64w";
        expected.push_back({std::string("__zorva_dgcopyb") + b + "_psc", {terms, w, 8}});
        for (const u64 h : {260u, 260u, 4u}) {
          expected.push_back({std::string("__zorva_dgcopya") + a + "_xk64w", {h, terms, 7}});
          expected.push_back(
              {std::string("__zorva_din") + inner, {h, w, terms == 3 ? 4 : terms, 112, 9, 0}});
        }
        if (terms == 3) expected.push_back({"_MATMUL_r8_n_n_pst_init", {1, w, 9}});
        expected.push_back({name + "_pst_General", {1, w, terms, 7, 8, 9}});
      }
    const words column = a == 'n' ? words{m, k, 7} : words{k, m, 7};
    expected.insert(expected.end(), 3, {"MATMUL_v_" + storage + "_pst", column});
    expect(name + "_XK64w", product_of(m, n, k), expected);

    // Where the buffer's parts are, as far as the boundaries below them tell.
    const u64 packed_a = inner_block[3], packed_b = inner_block[4], strip = inner_block[8];
    EXPECT_TRUE(packed_a % 4096 == 0 && packed_b == packed_a + 0x3b000 && strip % 128 == 0);
    EXPECT_EQ((strip - 256 - (packed_a + 0x3c000 + 2000 * 896)) / (4096 + 128), 0u);
  }
}

TEST(Reductions, CallTheQuadRoutinesAndTheFill) {
  u64 t[8] = {}, at = reinterpret_cast<u64>(t);
  const std::string init = "__zorva_reduction_init_array",
                    fold = "__zorva_simd_reduction_final_array";
  expect(fold, {at, at, 1, 0, 0, 2, 13, 0, 0}, {{"__mulq", {}}});
  expect(fold, {at, at, 1, 0, 0, 5, 13, 0, 0}, {{"__geq", {}}});
  expect(fold, {at, at, 1, 0, 0, 2, 23, 0, 0}, {{"__cmulq", {}}});
  expect(init, {at, 3, 5, 2, 0, 0, 0, 0, 0}, {{"_zorva_fast_memset", {127, 3}}});
  expect(init, {at, 510, 0, 1, 0, 0, 0, 0, 0}, {{"_zorva_fast_memset", {254, 510}}});
}

}  // namespace
