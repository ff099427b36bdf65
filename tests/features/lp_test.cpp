// Linear prediction against direct solves of the normal equations; the LP
// spectrum against |gain / A(e^{iw})| evaluated directly.
#include <gtest/gtest.h>

#include <complex>

#include "feature_refs.h"
#include "xkl.h"
#include "xkl_test_support.h"

namespace {

// Predictor of order p from the normal equations sum_j a_j phi(i, j) =
// phi(i, 0), i = 1..p, solved by Gaussian elimination with partial pivoting.
// Autocorrelation: phi(i, j) = r(|i - j|) over the whole frame; covariance:
// phi(i, j) = sum_{m = max(i, j)}^{n-1} x[m-i] x[m-j].
std::vector<double> normalEquations(const std::vector<float> &x, int p, bool covariance) {
  const int n = static_cast<int>(x.size());
  auto phi = [&](int i, int j) {
    const int lag = std::abs(i - j);
    double s = 0;
    for (int m = covariance ? std::max(i, j) : lag; m < n; ++m)
      s += static_cast<double>(x[m - (covariance ? i : lag)]) * x[m - (covariance ? j : 0)];
    return s;
  };
  std::vector<std::vector<double>> a(p, std::vector<double>(p + 1));
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= p; ++j) a[i][j] = phi(i + 1, j < p ? j + 1 : 0);
  for (int c = 0; c < p; ++c) {
    std::swap(a[c], *std::max_element(a.begin() + c, a.end(), [c](auto &u, auto &v) {
      return std::fabs(u[c]) < std::fabs(v[c]);
    }));
    for (int r = 0; r < p; ++r)
      if (r != c)
        for (int k = p; k >= c; --k) a[r][k] -= a[r][c] / a[c][c] * a[c][k];
  }
  std::vector<double> sol(p);
  for (int i = 0; i < p; ++i) sol[i] = a[i][p] / a[i][i];
  return sol;
}

class Lpc : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKFreeLPTbls();
    xkltest::ReportingTest::TearDown();
  }
};

// A noise floor 30 dB down keeps the condition near 1e3: the float methods
// stay within 1e-4 of the largest coefficient (method 3 is method 1). The
// 16-bit form gives the float form's result on the same samples to one unit.
TEST_F(Lpc, MethodsAgreeWithNormalEquations) {
  for (int n : {160, 400})
    for (int p : {1, 2, 10, 16})
      for (int method : {1, 2, 3}) {
        SCOPED_TRACE(testing::Message() << "n=" << n << " p=" << p << " method=" << method);
        const auto x = featref::speechLike(n, 11 + p, 1.0, 0.031);
        const auto ref = normalEquations(x, p, method == 2);
        const double big = std::fabs(*std::max_element(ref.begin(), ref.end(), [](double u, double v) {
          return std::fabs(u) < std::fabs(v);
        }));
        std::vector<float> a(p), xq(n), aq(p);
        ASSERT_EQ(XKsLPredict(x.data(), n, a.data(), p, method), 1);
        for (int j = 0; j < p; ++j) EXPECT_NEAR(a[j], ref[j], 1e-4 * big) << j;
        std::vector<short> w(n), wa(p);
        for (int i = 0; i < n; ++i) xq[i] = w[i] = static_cast<short>(std::lround(x[i] * 8192));
        ASSERT_EQ(XKsLPredict(xq.data(), n, aq.data(), p, method), 1);
        int scale = 0;
        ASSERT_EQ(XKwLPredict(w.data(), n, wa.data(), p, method, XK_AUTO_SCALE, &scale), 1);
        for (int j = 0; j < p; ++j) EXPECT_NEAR(std::ldexp(wa[j], scale), aq[j], std::ldexp(1.0, scale)) << j;
      }
}

// No method bit, or a reflection coefficient carried past 1 by rounding:
// x = (1 + z)^5 has a spectral zero of order 10 at pi, its autocorrelation
// matrix nears singularity as p grows, and at p = 27 the float recursion
// meets |k| > 1. Both return 0 without a report and leave lpc alone.
TEST_F(Lpc, FailuresLeaveOutputUntouched) {
  std::vector<float> x = {1, 5, 10, 10, 5, 1}, a(27, 7.0f);
  x.resize(64, 0.0f);
  EXPECT_EQ(XKsLPredict(x.data(), 64, a.data(), 27, 1), 0);
  EXPECT_EQ(XKsLPredict(x.data(), 64, a.data(), 4, 0), 0);
  EXPECT_EQ(a, std::vector<float>(27, 7.0f));
  EXPECT_TRUE(xkltest::reports().empty());
}

// gain / |lead - sum_j a_j e^{-ijw_k}|, w_k = pi k / M, in long double.
std::vector<double> lpSpectrumRef(const std::vector<double> &a, int order, double gain, double lead = 1) {
  std::vector<double> s(1 << order);
  for (size_t k = 0; k < s.size(); ++k) {
    std::complex<long double> acc = lead;
    for (size_t j = 0; j < a.size(); ++j)
      acc -= static_cast<long double>(a[j]) * std::polar(1.0L, -featref::kPi * (j + 1) * k / s.size());
    s[k] = gain / static_cast<double>(std::abs(acc));
  }
  return s;
}

// Direct and FFT routes on both sides of their limits (float: order 10, p
// <= 10 direct; 16-bit: order 5, p <= 21; order 2: 3), a real predictor, the
// all-zero one and p = 0. Float: the FFT errs by 1e-6 (order + 2) (sum |a| +
// 1), relative to gain/|A|. 16-bit, scale -9, gain 300: truncation (sqrt 2)
// and Q14 twiddles (sum |w_j| 2^-15) err by dA in |A|, so gain/|A| by
// dA / (|A| - dA), plus one output unit.
TEST_F(Lpc, SpectrumAgreesWithDirectEvaluation) {
  const auto x = featref::speechLike(400, 21, 1.0, 0.031);
  const int cases[][2] = {{10, 10}, {10, 11}, {5, 21}, {5, 22}, {8, 0}, {0, 0}, {3, 12}, {2, 3}, {2, 4}};
  for (const auto &[order, p] : cases)
    for (bool zero : {false, true}) {
      SCOPED_TRACE(testing::Message() << "order=" << order << " p=" << p << " zero=" << zero);
      const int m = 1 << order;
      std::vector<float> a(std::max(p, 1), 0.0f), s(m);
      if (p > 0 && !zero) { ASSERT_EQ(XKsLPredict(x.data(), 400, a.data(), p, 1), 1); }
      std::vector<short> wa(std::max(p, 1)), ws(m);
      std::vector<double> ad(a.begin(), a.begin() + p), aq(p);
      double sumA = 1, sumW = 0;
      for (int j = 0; j < p; ++j)
        wa[j] = static_cast<short>(std::lround(a[j] * 512)), aq[j] = wa[j] / 512.0, sumA += std::fabs(a[j]),
        sumW += std::abs(wa[j]);
      const auto ref = lpSpectrumRef(ad, order, 2.5), wref = lpSpectrumRef(aq, order, 300);
      XKsLPSpectrum(a.data(), p, s.data(), order, 2.5f);
      int outScale = 0;
      XKwLPSpectrum(wa.data(), p, ws.data(), order, 300, -9, XK_AUTO_SCALE, &outScale);
      for (int k = 0; k < m; ++k) {
        ASSERT_NEAR(s[k], ref[k], ref[k] * ref[k] / 2.5 * (1e-6 * (order + 2) * sumA + 1e-6)) << k;
        const double dA = std::sqrt(2.0) + sumW / 32768, absA = 300 / wref[k] * 512;  // |A| in units 2^-9
        ASSERT_NEAR(std::ldexp(ws[k], outScale), wref[k], wref[k] * dA / (absA - dA) + std::ldexp(1.0, outScale)) << k;
      }
    }
}

// With inScale >= 1 the leading 1 has no integer form and element 0 of the
// transform buffer is not set: a fresh buffer holds 0 there, so the result is
// gain 2^-inScale / |sum_j w_j e^{-ijw}| (FFT route: p = 24 at order 5).
TEST_F(Lpc, SixteenBitFftRouteWithoutLeadingOne) {
  XKFreeLPTbls();
  std::vector<short> w(24), out(32);
  std::vector<double> wd(24);
  for (int j = 0; j < 24; ++j) wd[j] = -(w[j] = static_cast<short>(j % 3 == 0 ? 40 : j - 13));
  int outScale = 0;
  XKwLPSpectrum(w.data(), 24, out.data(), 5, 1000, 1, XK_AUTO_SCALE, &outScale);
  const auto ref = lpSpectrumRef(wd, 5, 500, 0);
  for (int k = 0; k < 32; ++k)  // truncation: |W| errs by < sqrt 2, gain/|W| by sqrt 2 / (|W| - sqrt 2)
    EXPECT_NEAR(std::ldexp(out[k], outScale), ref[k],
                ref[k] * std::sqrt(2.0) / (500 / ref[k] - std::sqrt(2.0)) + std::ldexp(1.0, outScale)) << k;
}

// A(w_0) = 0 raises the reciprocal kernel's error; the next call works
// normally whatever the stale kernel status.
TEST_F(Lpc, ZeroOfAReportsThroughTheKernelAndDoesNotStick) {
  const float a1 = 1.0f, a2 = 0.5f;  // A = 1 - e^{-iw}: zero at w = 0
  std::vector<float> s(8);
  XKsLPSpectrum(&a1, 1, s.data(), 3, 1.0f);
  EXPECT_EQ(std::to_string(kfxGetStatus()) + " " + kfxGetErrorReport()->message, "-5 zero element and zero thresh");
  XKsLPSpectrum(&a2, 1, s.data(), 3, 1.0f);
  EXPECT_EQ(kfxGetStatus(), 0);
  EXPECT_FLOAT_EQ(s[0], 2.0f);
  EXPECT_TRUE(xkltest::reports().empty());
}

}  // namespace
