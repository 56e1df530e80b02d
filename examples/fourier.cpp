// The discrete Fourier transform of several signals at once, as a product of matrices: column j of
// the second operand is signal j. The matrix of the inverse transform is the conjugate one.
#include <zorvac/array.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>
#include <vector>

namespace {

using number = std::complex<double>;  // has the layout of the library's complex binary64

class matrix {
 public:
  matrix(std::size_t rows, std::size_t columns) : rows_(rows), elements_(rows * columns) {}

  number& operator()(std::size_t row, std::size_t column) {
    return elements_[row + column * rows_];
  }
  [[nodiscard]] std::size_t rows() const { return rows_; }
  [[nodiscard]] std::size_t columns() const { return elements_.size() / rows_; }

  friend matrix operator*(const matrix& a, const matrix& b) {
    matrix c(a.rows(), b.columns());
    _MATMUL_c8_n_n(a.elements_.data(), b.elements_.data(), c.elements_.data(), a.rows(),
                   a.columns(), b.columns(), a.rows(), b.rows(), c.rows());
    return c;
  }

 private:
  std::size_t rows_;
  std::vector<number> elements_;  // column by column
};

// Powers of a root of unity, scaled so that the transform and its inverse look alike.
matrix transform(std::size_t size, double direction) {
  matrix f(size, size);
  const double length = static_cast<double>(size), step = direction * 2 * std::numbers::pi / length;
  for (std::size_t i = 0; i < size; ++i)
    for (std::size_t j = 0; j < size; ++j)
      f(i, j) = std::polar(1 / std::sqrt(length), step * static_cast<double>(i * j % size));
  return f;
}

}  // namespace

int main() {
  constexpr std::size_t size = 64, signals = 3;
  const double pitches[signals] = {3, 5, 20};
  matrix samples(size, signals);
  for (std::size_t j = 0; j < signals; ++j)
    for (std::size_t i = 0; i < size; ++i)
      samples(i, j) =
          std::cos(2 * std::numbers::pi * pitches[j] * static_cast<double>(i) / double{size});

  matrix spectra = transform(size, -1) * samples;
  bool right = true;
  for (std::size_t j = 0; j < signals; ++j) {
    std::size_t loudest = 0;
    for (std::size_t i = 1; i <= size / 2; ++i)
      if (std::abs(spectra(i, j)) > std::abs(spectra(loudest, j))) loudest = i;
    std::printf("signal %zu: %zu cycles\n", j + 1, loudest);
    right &= static_cast<double>(loudest) == pitches[j];
  }

  matrix again = transform(size, 1) * spectra;
  double error = 0;
  for (std::size_t j = 0; j < signals; ++j)
    for (std::size_t i = 0; i < size; ++i)
      error = std::max(error, std::abs(again(i, j) - samples(i, j)));
  std::printf("transformed back, the signals are %s\n", error < 1e-13 ? "the same" : "others");
  return right && error < 1e-13 ? 0 : 1;
}
