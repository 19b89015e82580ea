// Vectors and matrices, the simplex fitter, numeric tools, angles and the
// 32-bit bit functions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "zqmath/Angle.h"
#include "zqmath/amoeba.h"
#include "zqmath/encryption_tools.h"
#include "zqmath/math_tools.h"
#include "zqmath/random.h"

TEST(CVector, ResizingAndOperations) {
  CVector<double> v(3);
  for (int i = 0; i < 3; ++i) v[i] = i + 1.0;
  CVector<double> copy = v;
  EXPECT_EQ(copy * v, 14.0);
  EXPECT_DOUBLE_EQ(v.Norm2(), std::sqrt(14.0));
  EXPECT_EQ(v.NormMax(), 3.0);
  copy.ReSize(1);
  copy.ReSize(3);  // the same storage: the first value remains
  EXPECT_EQ(copy[0], 1.0);
  EXPECT_EQ(copy.Dim(), 3);
  copy.clear();
  EXPECT_EQ(copy.NormMax(), 0.0);
}

TEST(CMatrix, DummiesSwapsAndProducts) {
  CMatrix<double> m(3, 2);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 2; ++j) m(i, j) = 10 * i + j;
  testing::internal::CaptureStderr();
  m(1, 5) = 7;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Matrix Access to Element:: 1, 5 denied:\n");
  const double* row1 = m.Row(1);
  m.RowSwap(0, 1);
  EXPECT_EQ(m.Row(0), row1);  // the pointers moved, not the elements
  EXPECT_EQ(m(0, 1), 11);
  m.ColumnSwap(0, 1);
  EXPECT_EQ(m(0, 0), 11);
  EXPECT_EQ(m(2, 1), 20);

  CMatrix<double> id(2, 2);
  id.Unity();
  CMatrix<double> t = m.Transposed();
  EXPECT_EQ(t.Dim1(), 2);
  EXPECT_EQ((m * id)(2, 0), m(2, 0));
  CVector<double> x(2);
  x[0] = 1;
  x[1] = 2;
  EXPECT_EQ((m * x)[0], 11 + 2 * 10);
  m.ReSize(4, 3);  // more rows and wider: widened
  m.Initialize(1.0);
  EXPECT_EQ(m(3, 2), 1.0);
  EXPECT_DOUBLE_EQ(m.Norm2(), std::sqrt(12.0));
}

namespace {
double line_model(void*, const CVector<double>& m, const CVector<double>& p) {
  return std::pow(p(0) * m(0) + p(1) - m(1), 2);
}
double noise_model(void*, const CVector<double>&, const CVector<double>&) { return std::rand() / (RAND_MAX + 1.0); }
}  // namespace

TEST(Amoeba, FitsAndItsBoundaries) {
  std::srand(12345);
  CMatrix<double> data(20, 2);
  for (int i = 0; i < 20; ++i) {
    data(i, 0) = i * 0.5;
    data(i, 1) = 2.0 * data(i, 0) + 1.0;
  }
  CVector<double> params(2);
  params.clear();
  int nfunk = 0;
  double chi = -1;
  fit(nullptr, data, line_model, params, &nfunk, &chi);
  EXPECT_NEAR(params[0], 2.0, 1e-4);
  EXPECT_NEAR(params[1], 1.0, 1e-4);
  EXPECT_LT(chi, 1e-8);
  EXPECT_GT(nfunk, 0);

  CMatrix<double> none(0, 2);
  fit(nullptr, none, line_model, params, nullptr, &chi);
  EXPECT_TRUE(std::isnan(chi));  // 0 / 0 rows

  CMatrix<double> one(1, 2);
  one.Initialize(1.0);
  testing::internal::CaptureStderr();
  fit(nullptr, one, noise_model, params, &nfunk, &chi);
  const std::string err = testing::internal::GetCapturedStderr();
  std::string sixteen;
  for (int i = 0; i < 16; ++i) sixteen += "NMAX exceeded\n";
  EXPECT_EQ(err, sixteen);
  EXPECT_GE(nfunk, 16 * 50000);
}

TEST(NumericTools, DivisorsFactorialAndGenerators) {
  EXPECT_EQ(ggT(12, -18), 6);
  EXPECT_EQ(ggT(0, 5), 5);
  EXPECT_EQ(kgV(4, 6), 12);
  EXPECT_EQ(kgV(-4, 6), -12);
  EXPECT_EQ(Fak(0) + Fak(1), 2);
  EXPECT_EQ(Fak(12), 479001600);
  EXPECT_EQ(Fak(13), static_cast<int32_t>(6227020800LL));  // wraps as 32-bit

  long a = 123459876, b = 55;
  EXPECT_EQ(ran0(&a), ran0(&b));
  EXPECT_EQ(a, b);
  for (int i = 0; i < 1000; ++i) ASSERT_LT(std::fabs(ran0(&a) - 0.5f), 0.5f) << i;  // within (0, 1)
  long idum = -1;  // the generator's published check value, from psdes(1, 1)
  EXPECT_NEAR(ran4(&idum), 0.219120, 1e-6);
  EXPECT_EQ(idum, 2);
}

TEST(NumericTools, GammaAgainstTheStandardLibrary) {
  for (double x = 0.5; x <= 100.0; x += 0.37) {
    ASSERT_NEAR(LnGamma(x), std::lgamma(x), 1e-10 * std::max(1.0, std::fabs(std::lgamma(x)))) << x;
  }
  EXPECT_EQ(FGamma(5.0), 24.0);
  EXPECT_NEAR(FGamma(0.5), std::sqrt(M_PI), 1e-15);
  // Below 12 the rational approximation is within 1e-13; above, Stirling's
  // exp() of an argument near x ln x scales the rounding of that argument.
  for (double x = 0.013; x <= 170.0; x += 0.731) {
    const double tolerance = x < 12.0 ? 1e-13 : 4e-16 * x * std::log(x);
    ASSERT_NEAR(FGamma(x), std::tgamma(x), tolerance * std::tgamma(x)) << x;
  }
  for (double x = -0.5; x > -20.0; x -= 1.37) ASSERT_NEAR(FGamma(x) / std::tgamma(x), 1.0, 1e-13) << x;
  for (double pole_or_overflow : {171.0, -2.0, 0.0}) EXPECT_TRUE(std::isinf(FGamma(pole_or_overflow)));
}

TEST(AngleClass, ConversionsAndNormalisation) {
  EXPECT_DOUBLE_EQ(Angle::Degrees(180).rad(), Angle::kPi);
  EXPECT_NEAR(Angle::Degrees(370).Normalized().deg(), 10.0, 1e-12);
  EXPECT_NEAR(Angle::Degrees(-90).Normalized().deg(), 270.0, 1e-12);
  EXPECT_NEAR(Angle::Degrees(270).Signed().deg(), -90.0, 1e-12);
  EXPECT_NEAR((Angle::Degrees(30) + Angle::Degrees(60)).deg(), 90.0, 1e-12);
}

TEST(BitFunctions, SwapsAndRotations) {
  EXPECT_EQ(Swap32(0x11223344u), 0x44332211u);
  EXPECT_EQ(LRot32(0x80000001u, 1), 0x00000003u);
  EXPECT_EQ(RRot32(0x00000003u, 1), 0x80000001u);
  EXPECT_EQ(LRot32(0x12345678u, 0), 0x12345678u);
  EXPECT_EQ(LRot32(0x12345678u, 32), 0x12345678u);
  EXPECT_EQ(LRot32(0x12345678u, 36), LRot32(0x12345678u, 4));
  EXPECT_EQ(RRot32(0x12345678u, -28), RRot32(0x12345678u, 4));
  EXPECT_EQ(LRot32_p(0xFFFFFFFFu, 2, 4), 0x10u);
  EXPECT_EQ(LRot32_m(0, 1, 4), 0xFFFFFFFFu);
  EXPECT_EQ(LRot32_x(0xF0F0F0F0u, 0xFFFFFFFFu, 4), 0xF0F0F0F0u);
}
