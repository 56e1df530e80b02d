// Matrix products beside OpenBLAS, BLIS, Eigen and the Fortran compiler's MATMUL, on one thread.
//
// Rows are <type>_<storages>/<m>x<k>x<n>. Ours appears once for each level of the processor, set
// through the feature indicator: zorvac-pair (SSE2), zorvac-avx2, zorvac-avx512. The rows r8_n_n
// also have the general kernels, zorvac-general-*. The counter is GFLOP/s; a complex multiplication
// and addition count as 8. limit/* are the machine's limits for doubles.
//
// OpenBLAS chooses a core by family and model. If it does not know them, it may take a core for a
// processor twenty years old. The program then sets the core by the processor's features, and
// starts again. OPENBLAS_CORETYPE=Nehalem shows what OpenBLAS does on an older processor.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "array/products.h"
#include "support/libc_peer.h"
#include "zorvac/array.h"
#include "zorvac/cpu.h"

extern "C" {
using fortran_fn = void(const void* a, const void* b, void* c, std::int64_t m, std::int64_t k,
                        std::int64_t n);
#ifdef ZORVAC_BENCH_FORTRAN
fortran_fn fortran_r4_n_n, fortran_r8_n_n, fortran_r8_t_n, fortran_r8_n_t, fortran_c4_n_n,
    fortran_c8_n_n;
#endif
void general_n_n(const void* a, const void* b, void* c, std::uint64_t m, std::uint64_t k,
                 std::uint64_t n, std::uint64_t lda, std::uint64_t ldb,
                 std::uint64_t ldc) __asm__("_MATMUL_r8_n_n.A");
}

namespace zorvac::bench {
namespace {

using product_fn = std::function<void(const problem&, const void* a, const void* b, void* c)>;

// Two libraries with the same names in one process, each bound to its own.
class blas {
 public:
  blas(const char* file, const char* set_threads)
      : library_(dlopen(file, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND)) {
    if (library_ == nullptr) {
      std::fprintf(stderr, "%s\n", dlerror());
      std::exit(1);
    }
    const auto set = reinterpret_cast<void (*)(long)>(dlsym(library_, set_threads));
    if (set != nullptr) set(1);
  }
  [[nodiscard]] product_fn product(const std::string& type) const {
    const std::string letters[] = {"r4s", "r8d", "c4c", "c8z"};
    std::string name;
    for (const std::string& l : letters)
      if (l.substr(0, 2) == type) name = l.substr(2) + "gemm_";
    const auto gemm = reinterpret_cast<gemm_fn*>(dlsym(library_, name.c_str()));
    return [gemm](const problem& p, const void* a, const void* b, void* c) {
      const int m = static_cast<int>(p.m), n = static_cast<int>(p.n), k = static_cast<int>(p.k),
                lda = static_cast<int>(p.lda()), ldb = static_cast<int>(p.ldb());
      const float one4[2] = {1, 0};
      const double zero[2] = {0, 0}, one8[2] = {1, 0};
      const void* const one = p.type[1] == '4' ? static_cast<const void*>(one4) : one8;
      gemm(p.a_transposed() ? "T" : "N", p.b_transposed() ? "T" : "N", &m, &n, &k, one, a, &lda, b,
           &ldb, zero, c, &m);
    };
  }

  // The text that a function without arguments returns, for example the version.
  [[nodiscard]] std::string say(const char* function) const {
    const auto words = reinterpret_cast<const char* (*)()>(dlsym(library_, function));
    return words != nullptr ? words() : "unknown";
  }

 private:
  using gemm_fn = void(const char*, const char*, const int* m, const int* n, const int* k,
                       const void* alpha, const void* a, const int* lda, const void* b,
                       const int* ldb, const void* beta, void* c, const int* ldc);
  void* library_;
};

// The core for OpenBLAS if the one that it chose uses less than the processor has; otherwise, or if
// the environment names a core, the empty text.
std::string better_core(const std::string& chosen) {
  const auto is_one_of = [&](std::initializer_list<const char*> cores) {
    return std::any_of(cores.begin(), cores.end(), [&](auto core) { return chosen == core; });
  };
  if (std::getenv("OPENBLAS_CORETYPE") != nullptr) return "";
  if (__builtin_cpu_supports("avx512vl"))
    return is_one_of({"SkylakeX", "Cooperlake", "Sapphirerapids", "Zen"}) ? "" : "SkylakeX";
  if (__builtin_cpu_supports("avx2"))
    return is_one_of({"Haswell", "Zen", "Excavator"}) ? "" : "Haswell";
  return "";
}

// Starts the program again if OpenBLAS needs another core, because it chooses when it is loaded.
void set_core(const blas& openblas, char** argv) {
  const std::string chosen = openblas.say("openblas_get_corename"), better = better_core(chosen);
  if (better.empty()) return;
  setenv("OPENBLAS_CORETYPE", better.c_str(), 1);
  setenv("ZORVAC_BENCH_OPENBLAS_CHOSE", chosen.c_str(), 1);
  execv("/proc/self/exe", argv);
  std::perror("/proc/self/exe");
  std::exit(1);
}

void record_peers(const blas& openblas, const blas& blis) {
  const std::string config = openblas.say("openblas_get_config");  // "OpenBLAS 0.3.21 ..."
  const char* const chose = std::getenv("ZORVAC_BENCH_OPENBLAS_CHOSE");
  record_peer("OpenBLAS",
              config.substr(9, config.find(' ', 9) - 9) + ", core " +
                  openblas.say("openblas_get_corename") +
                  (chose != nullptr ? std::string(", set by us: it chose ") + chose : ""));
  record_peer("BLIS", blis.say("bli_info_get_version_str"));
  record_peer("Eigen", eigen_version());
#ifdef ZORVAC_BENCH_FORTRAN
  record_peer("MATMUL", "gfortran " ZORVAC_BENCH_FORTRAN);
#endif
}

// An entry of ours, with the features of a level.
template <class Entry>
product_fn ours(std::uint64_t indicator, Entry* entry) {
  return [=](const problem& p, const void* a, const void* b, void* c) {
    __zorva_cpu_feature_indicator = indicator;
    entry(a, b, c, p.m, p.k, p.n, p.lda(), p.ldb(), p.m);
  };
}
product_fn fortran(fortran_fn* f) {
  return [=](const problem& p, const void* a, const void* b, void* c) {
    f(a, b, c, static_cast<std::int64_t>(p.m), static_cast<std::int64_t>(p.k),
      static_cast<std::int64_t>(p.n));
  };
}

using buffer = std::unique_ptr<void, decltype(&std::free)>;
buffer random_matrix(const problem& p, std::uint64_t elements) {
  const std::size_t parts = elements * (p.is_complex() ? 2 : 1);
  buffer b(std::aligned_alloc(4096, (parts * 8 + 4095) / 4096 * 4096), std::free);
  static const std::vector<double> numbers = [] {  // made once, used by every run
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> part(-1, 1);
    std::vector<double> list(65537);
    for (double& x : list) x = part(random);
    return list;
  }();
  for (std::size_t i = 0, next = elements % numbers.size(); i < parts; ++i) {
    if (p.type[1] == '4')
      static_cast<float*>(b.get())[i] = static_cast<float>(numbers[next]);
    else
      static_cast<double*>(b.get())[i] = numbers[next];
    if (++next == numbers.size()) next = 0;
  }
  return b;
}

void measure(benchmark::State& state, const problem& p, const product_fn& multiply) {
  const buffer a = random_matrix(p, p.m * p.k), b = random_matrix(p, p.k * p.n),
               c = random_matrix(p, p.m * p.n);
  for (auto _ : state) {
    multiply(p, a.get(), b.get(), c.get());
    benchmark::ClobberMemory();
  }
  state.counters["GFLOP/s"] = benchmark::Counter(
      1e-9 * p.flops() * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

struct level {
  const char* name;
  std::uint64_t indicator;
  bool available;
};

void add_rows(const std::string& type, const std::string& storages, auto* entry, fortran_fn* matmul,
              const std::vector<problem>& sizes, const blas& openblas, const blas& blis) {
  constexpr std::uint64_t avx2 = 0x9d97ff;
  static const level levels[] = {
      {"pair", 0xff, true},
      {"avx2", avx2, __builtin_cpu_supports("avx2") != 0},
      {"avx512", avx2 | ZORVAC_FEATURE_AVX512F | ZORVAC_FEATURE_AVX512DQ | ZORVAC_FEATURE_AVX512VL,
       __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")}};
  for (problem p : sizes) {
    p.type = type;
    p.storages = storages;
    const std::string row = type + '_' + storages + '/' + std::to_string(p.m) + 'x' +
                            std::to_string(p.k) + 'x' + std::to_string(p.n) + '/';
    const auto add = [&](const std::string& contender, const product_fn& multiply) {
      benchmark::RegisterBenchmark((row + contender).c_str(),
                                   [=](benchmark::State& s) { measure(s, p, multiply); });
    };
    for (const level& l : levels) {
      if (!l.available) continue;
      add(std::string("zorvac-") + l.name, ours(l.indicator, entry));
      if (type + storages == "r8n_n")
        add(std::string("zorvac-general-") + l.name, ours(l.indicator, general_n_n));
    }
    add("openblas", openblas.product(type));
    add("blis", blis.product(type));
    add("eigen", eigen_product);
    if (matmul != nullptr) add("matmul", fortran(matmul));
  }
}

#ifdef ZORVAC_BENCH_FORTRAN
#define MATMUL(name) fortran_##name
#else
#define MATMUL(name) static_cast<fortran_fn*>(nullptr)
#endif

void add_all(char** argv) {
  for (const char* threads : {"OPENBLAS_NUM_THREADS", "BLIS_NUM_THREADS", "OMP_NUM_THREADS"})
    setenv(threads, "1", 1);
  static const blas openblas(OPENBLAS, "openblas_set_num_threads"),
      blis(BLIS, "bli_thread_set_num_threads");
  set_core(openblas, argv);
  record_peers(openblas, blis);
  std::vector<problem> all, some;
  for (const std::uint64_t n : std::initializer_list<std::uint64_t>{
           4, 8, 12, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384, 512, 768, 1024, 1536})
    all.push_back({"", "", n, n, n});
  for (const std::uint64_t n : std::initializer_list<std::uint64_t>{4, 16, 64, 128, 256, 512})
    some.push_back({"", "", n, n, n});
  for (const problem& thin : {problem{"", "", 1000, 1000, 4},
                              {"", "", 4, 1000, 1000},
                              {"", "", 1000, 4, 1000},
                              {"", "", 1000, 1000, 1},
                              {"", "", 200, 3000, 40}})
    all.push_back(thin), some.push_back(thin);
  add_rows("r8", "n_n", _MATMUL_r8_n_n, MATMUL(r8_n_n), all, openblas, blis);
  add_rows("r8", "t_n", _MATMUL_r8_t_n, MATMUL(r8_t_n), some, openblas, blis);
  add_rows("r8", "n_t", _MATMUL_r8_n_t, MATMUL(r8_n_t), some, openblas, blis);
  add_rows("r4", "n_n", _MATMUL_r4_n_n, MATMUL(r4_n_n), some, openblas, blis);
  add_rows("c4", "n_n", _MATMUL_c4_n_n, MATMUL(c4_n_n), some, openblas, blis);
  add_rows("c8", "n_n", _MATMUL_c8_n_n, MATMUL(c8_n_n), some, openblas, blis);
}

}  // namespace
}  // namespace zorvac::bench

int main(int argc, char** argv) {
  zorvac::bench::add_all(argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
