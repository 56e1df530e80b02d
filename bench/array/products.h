#ifndef ZORVAC_BENCH_ARRAY_PRODUCTS_H
#define ZORVAC_BENCH_ARRAY_PRODUCTS_H
// A product for all contenders: column-major, with the least leading dimensions.
#include <cstdint>
#include <string>

namespace zorvac::bench {

struct problem {
  std::string type;      // "r4", "r8", "c4" or "c8"
  std::string storages;  // "n_n", "t_n", "n_t" or "t_t"
  std::uint64_t m, k, n;

  [[nodiscard]] bool a_transposed() const { return storages[0] == 't'; }
  [[nodiscard]] bool b_transposed() const { return storages[2] == 't'; }
  [[nodiscard]] std::uint64_t lda() const { return a_transposed() ? k : m; }
  [[nodiscard]] std::uint64_t ldb() const { return b_transposed() ? n : k; }
  [[nodiscard]] bool is_complex() const { return type[0] == 'c'; }
  [[nodiscard]] double flops() const {
    return (is_complex() ? 8.0 : 2.0) * static_cast<double>(m) * static_cast<double>(k) *
           static_cast<double>(n);
  }
};

void eigen_product(const problem& p, const void* a, const void* b, void* c);
std::string eigen_version();

}  // namespace zorvac::bench
#endif
