// Linear prediction against direct solves of the normal equations in
// double, and the LP spectrum against |gain / A(e^{iw})| evaluated directly.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "feature_refs.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

using Matrix = std::vector<std::vector<double>>;

// Gaussian elimination with partial pivoting.
std::vector<double> solve(Matrix a, std::vector<double> b) {
  const size_t n = b.size();
  for (size_t c = 0; c < n; ++c) {
    size_t piv = c;
    for (size_t r = c + 1; r < n; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[piv][c])) piv = r;
    std::swap(a[c], a[piv]);
    std::swap(b[c], b[piv]);
    for (size_t r = c + 1; r < n; ++r) {
      const double m = a[r][c] / a[c][c];
      for (size_t k = c; k < n; ++k) a[r][k] -= m * a[c][k];
      b[r] -= m * b[c];
    }
  }
  std::vector<double> x(n);
  for (size_t i = n; i-- > 0;) {
    double s = b[i];
    for (size_t k = i + 1; k < n; ++k) s -= a[i][k] * x[k];
    x[i] = s / a[i][i];
  }
  return x;
}

// Autocorrelation normal equations: sum_j a_j r(|i-j|) = r(i), i = 1..p.
std::vector<double> autocorrRef(const std::vector<float> &x, int p) {
  const int n = static_cast<int>(x.size());
  auto r = [&](int k) {
    double s = 0;
    for (int m = 0; m + k < n; ++m) s += static_cast<double>(x[m]) * x[m + k];
    return s;
  };
  Matrix a(p, std::vector<double>(p));
  std::vector<double> b(p);
  for (int i = 0; i < p; ++i) {
    b[i] = r(i + 1);
    for (int j = 0; j < p; ++j) a[i][j] = r(std::abs(i - j));
  }
  return solve(a, b);
}

// Covariance normal equations: phi(i, j) = sum_{m=max(i,j)}^{n-1} x[m-i] x[m-j]
// (the lagged products over the part of the frame where both lags exist),
// sum_j a_j phi(i, j) = phi(i, 0).
std::vector<double> covarianceRef(const std::vector<float> &x, int p) {
  const int n = static_cast<int>(x.size());
  auto phi = [&](int i, int j) {
    double s = 0;
    for (int m = std::max(i, j); m < n; ++m) s += static_cast<double>(x[m - i]) * x[m - j];
    return s;
  };
  Matrix a(p, std::vector<double>(p));
  std::vector<double> b(p);
  for (int i = 1; i <= p; ++i) {
    b[i - 1] = phi(i, 0);
    for (int j = 1; j <= p; ++j) a[i - 1][j - 1] = phi(i, j);
  }
  return solve(a, b);
}

class Lpc : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKFreeLPTbls();
    xkltest::ReportingTest::TearDown();
  }
};

// Speech-like frames with a noise floor about 30 dB down keep the normal
// equations' condition number near 1e3, so float solutions (6e-8 per
// rounding, a few roundings per step) stay within 1e-4 of the largest
// coefficient; method 3 takes the autocorrelation branch.
TEST_F(Lpc, MethodsAgreeWithNormalEquations) {
  for (int n : {160, 400})
    for (int p : {1, 2, 10, 16})
      for (int method : {1, 2, 3}) {
        SCOPED_TRACE(testing::Message() << "n=" << n << " p=" << p << " method=" << method);
        const auto x = featref::speechLike(n, 11 + p, 1.0, 0.031);
        const auto ref = method == 2 ? covarianceRef(x, p) : autocorrRef(x, p);
        double big = 0;
        for (double v : ref) big = std::max(big, std::fabs(v));
        std::vector<float> a(p, 0);
        ASSERT_EQ(XKsLPredict(x.data(), n, a.data(), p, method), 1);
        for (int j = 0; j < p; ++j) EXPECT_NEAR(a[j], ref[j], 1e-4 * big) << j;
        // 16-bit form: same coefficients to one unit of the chosen scale.
        std::vector<short> w(x.size()), wa(p);
        for (int i = 0; i < n; ++i) w[i] = static_cast<short>(std::lround(x[i] * 8192));
        std::vector<float> xq(w.begin(), w.end());
        std::vector<float> aq(p);
        ASSERT_EQ(XKsLPredict(xq.data(), n, aq.data(), p, method), 1);
        int scale = 0;
        ASSERT_EQ(XKwLPredict(w.data(), n, wa.data(), p, method, XK_AUTO_SCALE, &scale), 1);
        for (int j = 0; j < p; ++j) EXPECT_NEAR(std::ldexp(wa[j], scale), aq[j], std::ldexp(1.0, scale)) << j;
      }
}

// Identities: a constant frame with p = 1 gives (n-1)/n; p = 1 gives
// r1/r0 (and the covariance method tends to it for long frames).
TEST_F(Lpc, FirstOrderIdentities) {
  std::vector<float> c(50, 3.0f);
  float a = 0;
  ASSERT_EQ(XKsLPredict(c.data(), 50, &a, 1, 1), 1);
  EXPECT_FLOAT_EQ(a, 49.0f / 50.0f);
  const auto x = featref::speechLike(4000, 2);
  double r0 = 0, r1 = 0;
  for (size_t m = 0; m < x.size(); ++m) r0 += double(x[m]) * x[m], r1 += m + 1 < x.size() ? double(x[m]) * x[m + 1] : 0;
  float ac = 0, cov = 0;
  ASSERT_EQ(XKsLPredict(x.data(), 4000, &ac, 1, 1), 1);
  ASSERT_EQ(XKsLPredict(x.data(), 4000, &cov, 1, 2), 1);
  EXPECT_NEAR(ac, r1 / r0, 1e-6);
  EXPECT_NEAR(cov, ac, 1e-3);
}

// Failures: no method bit, and a reflection coefficient carried past 1 by
// rounding. x = (1 + z)^5 has a spectral zero of order 10 at pi, so the
// autocorrelation matrix approaches singularity as p grows and at p = 27 the
// float recursion meets |k| > 1. Both return 0 and leave lpc alone, without
// a report.
TEST_F(Lpc, FailuresLeaveOutputUntouched) {
  std::vector<float> x = {1, 5, 10, 10, 5, 1};
  x.resize(64, 0.0f);
  std::vector<float> a(27, 7.0f);
  EXPECT_EQ(XKsLPredict(x.data(), 64, a.data(), 27, 1), 0);
  EXPECT_EQ(XKsLPredict(x.data(), 64, a.data(), 4, 0), 0);
  for (float v : a) EXPECT_EQ(v, 7.0f);
  EXPECT_TRUE(xkltest::reports().empty());
}

// |gain / A(e^{iw_k})| with A = 1 - sum a_j e^{-ijw}, in double.
std::vector<double> lpSpectrumRef(const std::vector<double> &a, int order, double gain) {
  const int m = 1 << order;
  std::vector<double> s(m);
  for (int k = 0; k < m; ++k) {
    std::complex<long double> acc = 1;
    for (size_t j = 0; j < a.size(); ++j)
      acc -= static_cast<long double>(a[j]) * std::polar(1.0L, -featref::kPi * (j + 1) * k / m);
    s[k] = gain / static_cast<double>(std::abs(acc));
  }
  return s;
}

// Both routes on both sides of their limits (float: order 10 takes p <= 10
// directly; 16-bit: order 5 takes p <= 21), the all-zero predictor and
// p = 0. Float bound: the FFT of length 2M errs by 1e-6 (order + 2) of its
// largest value (<= 1 + sum |a|), the direct sums by float twiddles, p 6e-8
// |a|; relative to |A|, which the result divides by.
// 16-bit: coefficients with 9 fraction bits (scale -9); the integer FFT
// truncates each component (error < 1 unit, sqrt 2 in |A|), Q14 twiddles err
// by 2^-15 each (sum |w_j| 2^-15); plus one unit of the output scale.
TEST_F(Lpc, SpectrumAgreesWithDirectEvaluation) {
  const auto x = featref::speechLike(400, 21, 1.0, 0.031);
  struct Case {
    int order, p;
  };
  const Case cases[] = {{10, 10}, {10, 11}, {5, 21}, {5, 22}, {8, 0}, {0, 0}, {3, 12}, {2, 3}, {2, 4}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "order=" << c.order << " p=" << c.p);
    const int m = 1 << c.order;
    std::vector<float> a(std::max(c.p, 1), 0.0f);
    if (c.p > 0) {
      ASSERT_EQ(XKsLPredict(x.data(), 400, a.data(), c.p, 1), 1);
    }
    for (bool zero : {false, true}) {
      if (zero) std::fill(a.begin(), a.end(), 0.0f);
      const std::vector<double> ad(a.begin(), a.begin() + c.p);
      double sumA = 1;
      for (double v : ad) sumA += std::fabs(v);
      const auto ref = lpSpectrumRef(ad, c.order, 2.5);
      std::vector<float> s(m);
      XKsLPSpectrum(a.data(), c.p, s.data(), c.order, 2.5f);
      for (int k = 0; k < m; ++k) {
        const double absA = 2.5 / ref[k];
        ASSERT_NEAR(s[k], ref[k], ref[k] * (1e-6 * (c.order + 2) * sumA + 1e-6) / absA) << k;
      }
      // 16-bit, coefficients scaled by 2^9, gain 300 (the integer value).
      std::vector<short> wa(std::max(c.p, 1));
      std::vector<double> aq(c.p);
      double sumW = 0;
      for (int j = 0; j < c.p; ++j) {
        wa[j] = static_cast<short>(std::lround(a[j] * 512));
        aq[j] = wa[j] / 512.0, sumW += std::abs(wa[j]);
      }
      const auto wref = lpSpectrumRef(aq, c.order, 300.0);
      std::vector<short> ws(m);
      int outScale = 0;
      XKwLPSpectrum(wa.data(), c.p, ws.data(), c.order, 300, -9, XK_AUTO_SCALE, &outScale);
      for (int k = 0; k < m; ++k) {
        const double absAw = 300.0 / wref[k] * 512;  // |A| in coefficient units
        const double rel = (std::sqrt(2.0) + sumW * std::ldexp(1.0, -15)) / absAw;
        ASSERT_NEAR(std::ldexp(ws[k], outScale), wref[k], wref[k] * rel * 1.01 + std::ldexp(1.0, outScale)) << k;
      }
    }
  }
}

// With inScale >= 1 the leading 1 of A has no integer form and element 0 of
// the transform buffer is not set: a fresh buffer holds 0 there, so the
// result is gain 2^-inScale / |sum_j w_j e^{-ijw}|.
TEST_F(Lpc, SixteenBitFftRouteWithoutLeadingOne) {
  XKFreeLPTbls();
  std::vector<short> w(24);
  for (int j = 0; j < 24; ++j) w[j] = static_cast<short>(j % 3 == 0 ? 40 : -13 + j);
  std::vector<short> out(32);
  int outScale = 0;
  XKwLPSpectrum(w.data(), 24, out.data(), 5, 1000, 1, XK_AUTO_SCALE, &outScale);
  for (int k = 0; k < 32; ++k) {
    std::complex<long double> acc = 0;
    for (int j = 0; j < 24; ++j) acc += static_cast<long double>(w[j]) * std::polar(1.0L, -featref::kPi * (j + 1) * k / 32);
    const double expect = 500.0 / static_cast<double>(std::abs(acc));
    EXPECT_NEAR(std::ldexp(out[k], outScale), expect, expect * 2 / static_cast<double>(std::abs(acc)) + std::ldexp(1.0, outScale)) << k;
  }
}

// A(w_0) = 0 raises the reciprocal kernel's error (kernel status and report);
// the next call, whatever the stale kernel status, works normally.
TEST_F(Lpc, ZeroOfAReportsThroughTheKernelAndDoesNotStick) {
  const float a1 = 1.0f;  // A(w) = 1 - e^{-iw}: zero at w = 0
  std::vector<float> s(8);
  XKsLPSpectrum(&a1, 1, s.data(), 3, 1.0f);
  EXPECT_EQ(kfxGetStatus(), KFX_StsBadArg);
  EXPECT_STREQ(kfxGetErrorReport()->message, "zero element and zero thresh");
  const float a2 = 0.5f;
  XKsLPSpectrum(&a2, 1, s.data(), 3, 1.0f);
  EXPECT_EQ(kfxGetStatus(), 0);
  EXPECT_FLOAT_EQ(s[0], 2.0f);  // 1 / |1 - 0.5|
  EXPECT_TRUE(xkltest::reports().empty());
}

}  // namespace
