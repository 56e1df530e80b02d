// The shared library from outside: this program stands in for every routine that another one of the
// array family calls (stand_ins.S). So it sees which variant an indicator selects, in which order the
// extents arrive, and the steps of the blocked kernels. Nothing is computed: addresses are numbers.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "zorvac/cpu.h"

namespace {

using u64 = std::uint64_t;
using words = std::vector<u64>;
using steps = std::vector<std::pair<std::string, words>>;

steps calls;
u64 detected;
unsigned detections;

}  // namespace

extern "C" {
// A call as its stand-in finds it on the stack.
struct noted_call {
  const char* name;
  u64 in_registers[6], return_address, on_stack[4];
};
void zorvac_test_note(const noted_call* call) {
  words w(call->in_registers, call->in_registers + 6);
  w.insert(w.end(), call->on_stack, call->on_stack + 4);
  if (std::strstr(call->name, "dinner") != nullptr)  // takes its scalars by address
    for (const u64 i : {0, 1, 2, 5, 7, 9}) w[i] = *reinterpret_cast<const u64*>(w[i]);
  calls.emplace_back(call->name, w);
}
// Detection promises to change no register.
[[gnu::no_caller_saved_registers, gnu::target("general-regs-only")]] void
__zorva_cpu_features_init() {
  ++detections;
  __zorva_cpu_feature_indicator = detected;
}
}

namespace {

// What a routine of the library calls, compared as far as arguments are expected.
void expect(const std::string& routine, words w, const steps& expected) {
  using function = void(u64, u64, u64, u64, u64, u64, u64, u64, u64);
  const auto run = reinterpret_cast<function*>(dlsym(RTLD_NEXT, routine.c_str()));
  w.resize(9);
  calls.clear();
  run(w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7], w[8]);
  steps found = calls;
  for (u64 i = 0; i < found.size() && i < expected.size(); ++i)
    found[i].second.resize(expected[i].second.size());
  EXPECT_EQ(found, expected) << routine;
}

TEST(MatrixDispatch, SelectsByTheIndicatorAndSwapsTheExtents) {
  const words entry{1, 2, 3, 4, 5, 6, 7, 8, 9}, kernel{1, 2, 3, 4, 6, 5, 7, 8, 9};
  for (const std::string type : {"r4", "r8", "c4", "c8"})
    for (const std::string storage : {"n_n", "n_t", "t_n", "t_t"}) {
      const std::string name = "_MATMUL_" + type + '_' + storage, general = name + "_pst_General";
      for (u64 i = 0; i < 1024; ++i) {  // every low byte, with and without other bits
        __zorva_cpu_feature_indicator = (i & 256) != 0 ? i | ~u64{255} : i & 255;
        detected = (i & 512) != 0 ? 0x7f : 0x81;
        detections = 0;
        const u64 known = (i & 1) != 0 ? i : detected;
        const bool fast = type == "r8" && (known & 0x7f) == 0x7f;
        expect(name, entry, {{name + (fast ? ".J" : ".A"), entry}});
        EXPECT_EQ(detections, known == i ? 0u : 1u) << name << i;
      }
      expect(name + ".A", entry,
             {{"_MATMUL_" + type + "_n_n_pst_init", {3, 4, 6, 9}}, {general, kernel}});
      if (type == "r8") expect(name + ".J", entry, {{name + "_XK64w", kernel}});
      // Of the general kernels the complex ones promise to detect, even where there is nothing to do.
      __zorva_cpu_feature_indicator = 0xfe;
      detections = 0;
      expect(general, {}, {});
      EXPECT_EQ(detections, type[0] == 'c' ? 1u : 0u) << general;
    }
}

// Two panels of columns, the short block of terms before two whole ones, three blocks of rows, and
// what is left over: a row and three columns.
TEST(BlockedKernel, TakesItsSteps) {
  const u64 m = 525, k = 227, n = 2007, a = 1 << 24, b = 2 << 24, c = 3 << 24;
  const u64 lda = 1000, ldb = 3000, ldc = 4000;
  for (const std::string storage : {"n_n", "n_t", "t_n", "t_t"}) {
    const bool ta = storage[0] == 't', tb = storage[2] == 't';
    const std::string name = "_MATMUL_r8_" + storage, letters{storage[0], storage[2]};
    const std::string copy_a = std::string("__zorva_dgcopya") + storage[0] + "_xk64w";
    const std::string copy_b = std::string("__zorva_dgcopyb") + storage[2] + "_psc";
    const auto a_at = [&](u64 i, u64 t) { return a + 8 * (ta ? t + i * lda : i + t * lda); };
    const auto b_at = [&](u64 t, u64 j) { return b + 8 * (tb ? j + t * ldb : t + j * ldb); };
    const auto c_at = [&](u64 i, u64 j) { return c + 8 * (i + j * ldc); };
    steps expected;
    for (const u64 j : {0, 2000})
      for (const u64 t : {224, 0, 112}) {
        const bool first = t == 224;
        const u64 w = j == 0 ? 2000 : 4, terms = first ? 3 : 112;
        expected.push_back({copy_b, {terms, w, b_at(t, j), ldb}});
        for (const u64 i : {0, 260, 520}) {
          const u64 h = i == 520 ? 4 : 260;
          expected.push_back({copy_a, {h, terms, a_at(i, t), lda}});
          expected.push_back({first ? "__zorva_dinnerz_roll_xk64w" : "__zorva_dinner_xk64w",
                              {h, w, first ? 4 : terms}});
        }
        if (first) expected.push_back({"_MATMUL_r8_n_n_pst_init", {c_at(524, j), 1, w, ldc}});
        expected.push_back(
            {name + "_pst_General", {a_at(524, t), b_at(t, j), c_at(524, j), 1, w, terms}});
      }
    for (const u64 j : {2004, 2005, 2006})
      expected.push_back({"MATMUL_v_" + letters + "_pst",
                          {a, b_at(0, j), c_at(0, j), ta ? k : m, ta ? m : k, lda}});
    expect(name + "_XK64w", {a, b, c, m, n, k, lda, ldb, ldc}, expected);

    // Where the buffer's parts are, as far as the boundaries below them tell, and what nobody reads.
    const words inner = calls[2].second;
    const u64 packed = inner[3], strip = inner[8] - (packed + 0x3c000 + 2000 * 896);
    EXPECT_TRUE(packed % 4096 == 0 && inner[4] == packed + 0x3b000 && inner[8] % 128 == 0);
    EXPECT_TRUE(strip >= 256 && strip < 4096 + 384) << strip;
    EXPECT_TRUE(inner[5] == 112 && inner[9] == 0);
  }
}

TEST(Reductions, CallTheQuadRoutinesAndTheFill) {
  alignas(16) unsigned char memory[128] = {};
  const auto t = reinterpret_cast<u64>(memory), p = t + 64;
  const char* const routines[] = {"", "__addq", "__mulq", "__subq", "__leq", "__geq"};
  for (const u64 op : {1, 2, 3, 4, 5})
    expect("__zorva_simd_reduction_final_array", {t, p, 1, 0, 0, op, 13},
           {{routines[op], op > 3 ? words{t, p} : words{t, t, p}}});
  expect("__zorva_simd_reduction_final_array", {t, p, 1, 0, 0, 2, 23},
         {{"__cmulq", {t, t, p + 16, p, p + 16}}});
  expect("__zorva_reduction_init_array", {t, 3, 5, 2}, {{"_zorva_fast_memset", {t, 127, 3}}});
}

}  // namespace
