// Templates of other people over the C++ type: Eigen's matrices, Boost.Math's functions. That they
// compile is most of the test; the results are mathematical constants and identities.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <boost/math/constants/constants.hpp>
#include <boost/math/quadrature/gauss_kronrod.hpp>
#include <boost/math/quadrature/tanh_sinh.hpp>
#include <boost/math/special_functions/bessel.hpp>
#include <boost/math/special_functions/erf.hpp>
#include <boost/math/special_functions/fpclassify.hpp>
#include <boost/math/special_functions/gamma.hpp>
#include <boost/math/tools/roots.hpp>
#include <complex>

#include "zorvac/quad.hpp"

extern "C" __float128 jnq(int, __float128);

namespace zorvac::test {
namespace {

using number = zorvac::quad;
using namespace zorvac::literals;
using matrix = Eigen::Matrix<number, Eigen::Dynamic, Eigen::Dynamic>;

constexpr number pi = 3.14159265358979323846264338327950288_q;

void expect_near(number seen, number expected, number tolerance = 1e-32_q) {
  EXPECT_LE(abs(seen - expected), tolerance * fmax(abs(expected), 1))
      << to_string(seen) << ", not " << to_string(expected);
}

matrix hilbert(int n) {
  matrix h(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) h(i, j) = 1_q / (i + j + 1);
  return h;
}

TEST(Eigen, SolvesWhatDoublesCannot) {
  // The condition of this matrix is 10^16. The inverse has integers.
  const matrix h = hilbert(12), inverse = h.partialPivLu().inverse();
  expect_near(inverse(0, 0), 144, 1e-16_q);
  expect_near(inverse(11, 11), round(inverse(11, 11)), 1e-16_q);
  expect_near((h * inverse - matrix::Identity(12, 12)).norm(), 0, 1e-15_q);
  const matrix x = h.colPivHouseholderQr().solve(h * matrix::Ones(12, 1));
  expect_near((x - matrix::Ones(12, 1)).norm(), 0, 1e-15_q);
}

TEST(Eigen, DecomposesMatrices) {
  // Second differences: the eigenvalues are 2 - 2 cos(k pi / (n + 1)).
  constexpr int n = 8;
  matrix differences = matrix::Zero(n, n);
  for (int i = 0; i < n; ++i) {
    differences(i, i) = 2;
    if (i > 0) differences(i, i - 1) = differences(i - 1, i) = -1;
  }
  const Eigen::SelfAdjointEigenSolver<matrix> solver(differences);
  ASSERT_EQ(solver.info(), Eigen::Success);
  for (int k = 1; k <= n; ++k)
    expect_near(solver.eigenvalues()(k - 1), 2 - 2 * cos(k * pi / (n + 1)), 1e-31_q);
  const Eigen::JacobiSVD<matrix> values(differences);
  expect_near(values.singularValues()(0), 2 - 2 * cos(n * pi / (n + 1)), 1e-31_q);
}

// By complex numbers of quads: the roots of x^4 = -4 are 1 + i and its like.
TEST(Eigen, FindsComplexEigenvalues) {
  matrix companion = matrix::Zero(4, 4);
  for (int i = 1; i < 4; ++i) companion(i, i - 1) = 1;
  companion(0, 3) = -4;
  const Eigen::EigenSolver<matrix> solver(companion);
  ASSERT_EQ(solver.info(), Eigen::Success);
  for (int i = 0; i < 4; ++i) {
    const std::complex<number> root = solver.eigenvalues()(i);
    expect_near(abs(root.real()), 1, 1e-31_q);
    expect_near(abs(root.imag()), 1, 1e-31_q);
  }
}

TEST(Boost, HasConstantsAndSpecialFunctions) {
  namespace math = boost::math;
  expect_near(math::constants::pi<number>(), pi, 0);
  expect_near(math::tgamma(0.5_q), sqrt(pi));
  expect_near(math::tgamma(21_q), 2'432'902'008'176'640'000_q);
  expect_near(math::erf(1.25_q) + math::erfc(1.25_q), 1);
  expect_near(math::erf(0.75_q), erf(0.75_q));
  const number bessel = jnq(2, static_cast<zorvac::float128_t>(3.5_q));
  expect_near(math::cyl_bessel_j(2, 3.5_q), bessel, 1e-31_q);
  EXPECT_TRUE((math::isnan)(std::numeric_limits<number>::quiet_NaN()));
}

TEST(Boost, IntegratesAndFindsRoots) {
  namespace math = boost::math;
  const auto bell = [](const number& x) { return exp(-x * x); };
  expect_near(
      math::quadrature::gauss_kronrod<number, 61>::integrate(bell, -10_q, 10_q, 10, 1e-30_q),
      sqrt(pi), 1e-30_q);
  math::quadrature::tanh_sinh<number> integrator;
  expect_near(integrator.integrate([](const number& x) { return log(x); }, 0_q, 1_q), -1, 1e-30_q);

  std::uintmax_t steps = 100;
  const auto [low, high] =
      math::tools::toms748_solve([](const number& x) { return cos(x) - x; }, 0_q, 1_q,
                                 math::tools::eps_tolerance<number>(110), steps);
  expect_near(low, 0.739085133215160641655312087673873404_q);
  expect_near(high, low);
}

}  // namespace
}  // namespace zorvac::test
