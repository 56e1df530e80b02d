// The C++ type in other libraries' templates: Eigen's matrices, Boost.Math's functions. Most of the
// test is that they compile. The results are mathematical constants and identities.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <boost/math/constants/constants.hpp>
#include <boost/math/special_functions/fpclassify.hpp>
#include <boost/math/special_functions/gamma.hpp>
#include <complex>

#include "zorvac/quad.hpp"

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

TEST(Eigen, SolvesWhatDoublesCannot) {
  // The condition of Hilbert's matrix is 10^16. The inverse has integers.
  const auto element = [](Eigen::Index i, Eigen::Index j) { return 1_q / (i + j + 1); };
  const matrix h = matrix::NullaryExpr(12, 12, element), inverse = h.partialPivLu().inverse();
  expect_near(inverse(0, 0), 144, 1e-16_q);
  expect_near((h * inverse - matrix::Identity(12, 12)).norm(), 0, 1e-15_q);
}

// With complex numbers of quads: the roots of x^4 = -4 are 1 + i, 1 - i, -1 + i and -1 - i.
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
  EXPECT_TRUE((math::isnan)(std::numeric_limits<number>::quiet_NaN()));
}

}  // namespace
}  // namespace zorvac::test
