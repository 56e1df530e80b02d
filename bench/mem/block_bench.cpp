// The block routines beside the C library's, in one process: fixed and unpredictable sizes, aligned
// and not. Rows are <operation>/<sizes>/<contender>; our names begin with "zorvac". All calls go
// through a pointer, so each contender pays for the same indirect call.
//
// Members are compared with the C library held to their level, and those of the best level also
// with its best. The program runs once for each level (support/libc_peer.h).
#include <benchmark/benchmark.h>
#include <zorvac/cpu.h>
#include <zorvac/mem.h>

#include "mixes/blocks.h"
#include "support/libc_peer.h"

namespace zorvac::bench {
namespace {

// The features that contenders need.
const bool has_ssse3 = __builtin_cpu_supports("ssse3") != 0,
           has_avx2 = __builtin_cpu_supports("avx2") != 0,
           has_avx512f = __builtin_cpu_supports("avx512f") != 0;

template <class Function>
struct contender {
  std::string name;
  Function* call;
  unsigned beside;   // of libc_level
  bool runs = true;  // on this processor
};
using copy_function = void*(void*, const void*, std::size_t);
using fill_function = void*(void*, int, std::size_t);
using compare_function = int(const void*, const void*, std::size_t);

const block_arena arena;

void operate(copy_function* copy, const block_call& c) {
  benchmark::DoNotOptimize(copy(arena.to + c.to, arena.from + c.from, c.bytes));
}
void operate(fill_function* fill, const block_call& c) {
  benchmark::DoNotOptimize(fill(arena.to + c.to, 0x5a, c.bytes));
}
void operate(compare_function* compare, const block_call& c) {
  benchmark::DoNotOptimize(compare(arena.to + c.to, arena.from + c.from, c.bytes));
}

template <class Function>
void add_rows(const std::string& operation, const std::vector<block_mix>& mixes,
              const std::vector<contender<Function>>& contenders) {
  for (const block_mix& mix : mixes) {
    for (const contender<Function>& c : contenders) {
      if (!c.runs || (c.beside & libc().level) == 0) continue;
      const auto run = [call = c.call, &mix](benchmark::State& state) {
        // Comparisons run over equal blocks, whatever was copied before.
        const auto used = std::min(block_arena::bytes, 4 * mix.bytes + std::size_t{4} * page);
        std::memset(arena.to, 1, used);
        std::memset(arena.from, 1, used);
        for (auto _ : state)
          for (const block_call& b : mix.calls) operate(call, b);
        const auto turns = static_cast<std::int64_t>(state.iterations());
        state.SetBytesProcessed(turns * static_cast<std::int64_t>(mix.bytes));
        state.SetItemsProcessed(turns * static_cast<std::int64_t>(mix.calls.size()));
      };
      benchmark::RegisterBenchmark((operation + "/" + mix.name + "/" + c.name).c_str(), run);
    }
  }
}

void add_all() {
  static const std::vector<block_mix> mixes = block_mixes();
  const std::string peer = libc().name;
  add_rows<copy_function>("copy", mixes,
                          {{"zorvac_fast", _zorva_fast_memcpy, best | avx2},
                           {"zorvac_avx_rep", __zorva_avx_rep_memcpy, best | avx2, has_avx2},
                           {"zorvac_avx512f", __zorva_vpx_avx512f_memcpy, best, has_avx512f},
                           {"zorvac_new", __zorva_new_memcpy, sse2},
                           {"zorvac_ssse3", __zorva_ssse3_memcpy, ssse3, has_ssse3},
                           {"zorvac_ssse3_rep", __zorva_ssse3_rep_memcpy, ssse3, has_ssse3},
                           {"zorvac_vec", _VEC_memcpy, best | sse2},
                           {peer, std::memcpy, any}});
  add_rows<copy_function>("move", mixes,
                          {{"zorvac_fast", _zorva_fast_memmove, best | avx2},
                           {"zorvac_new", __zorva_new_memmove, sse2},
                           {"zorvac_ssse3", __zorva_ssse3_memmove, ssse3, has_ssse3},
                           {"zorvac_ssse3_rep", __zorva_ssse3_rep_memmove, ssse3, has_ssse3},
                           {peer, std::memmove, any}});
  add_rows<fill_function>("fill", mixes,
                          {{"zorvac_fast", _zorva_fast_memset, best | avx2},
                           {"zorvac_avx_rep", __zorva_avx_rep_memset, best | avx2, has_avx2},
                           {"zorvac_avx512f", __zorva_vpx_avx512f_memset, best, has_avx512f},
                           {"zorvac_new", __zorva_new_memset, sse2},
                           {"zorvac_vec", _VEC_memset, best | sse2},
                           {peer, std::memset, best | avx2 | sse2}});
  add_rows<compare_function>("compare", mixes,
                             {{"zorvac_fast", _zorva_fast_memcmp, best | avx2},
                              {"zorvac_new", __zorva_new_memcmp, sse2},
                              {peer, std::memcmp, best | avx2 | sse2}});
  record_libc();
  record_variant<copy_function>("libc memcpy", std::memcpy);
  record_variant<copy_function>("libc memmove", std::memmove);
  record_variant<fill_function>("libc memset", std::memset);
  record_variant<compare_function>("libc memcmp", std::memcmp);
}

}  // namespace
}  // namespace zorvac::bench

int main(int argc, char** argv) {
  __zorva_cpu_features_init();
  zorvac::bench::add_all();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
