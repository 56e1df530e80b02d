// Eigen's products, compiled for this machine.
#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Dense>
#include <complex>

#include "array/products.h"

namespace zorvac::bench {
namespace {

template <class T>
void multiply(const problem& p, const void* a, const void* b, void* c) {
  using dense = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic>;
  const auto index = [](std::uint64_t i) { return static_cast<Eigen::Index>(i); };
  const auto operand = [&](const void* x, bool transposed, std::uint64_t rows,
                           std::uint64_t columns) {
    return Eigen::Map<const dense>(static_cast<const T*>(x), index(transposed ? columns : rows),
                                   index(transposed ? rows : columns));
  };
  const auto x = operand(a, p.a_transposed(), p.m, p.k), y = operand(b, p.b_transposed(), p.k, p.n);
  Eigen::Map<dense> product(static_cast<T*>(c), index(p.m), index(p.n));
  if (p.a_transposed())
    product.noalias() = x.transpose() * y;
  else if (p.b_transposed())
    product.noalias() = x * y.transpose();
  else
    product.noalias() = x * y;
}

}  // namespace

void eigen_product(const problem& p, const void* a, const void* b, void* c) {
  if (p.type == "r4") multiply<float>(p, a, b, c);
  if (p.type == "r8") multiply<double>(p, a, b, c);
  if (p.type == "c4") multiply<std::complex<float>>(p, a, b, c);
  if (p.type == "c8") multiply<std::complex<double>>(p, a, b, c);
}

std::string eigen_version() {
  return std::to_string(EIGEN_WORLD_VERSION) + '.' + std::to_string(EIGEN_MAJOR_VERSION) + '.' +
         std::to_string(EIGEN_MINOR_VERSION);
}

}  // namespace zorvac::bench
